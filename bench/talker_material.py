"""Talkers for learned voices: a minute of each, recorded announcements of Debian packages and the voices of espeak-ng
and flite. Half of them build the engine's table of voices in general (voice_world.py); the other half is held out and
judges it (learned_voice)."""

import dataclasses
import hashlib
import pathlib
import random
import subprocess

import numpy as np

import voice_material as material

RATE = 8000
SECONDS = 75
GAP_SECONDS = (0.3, 0.8)

TEXTS = {
    "en": ["Good morning, this is the office, how can I help you today?",
           "The train to the airport leaves every twenty minutes from platform nine.",
           "We would like to change the appointment to next Wednesday afternoon.",
           "My brother bought a yellow bicycle and rides it through the park.",
           "Could you send me the invoice again, please, I cannot find it anywhere.",
           "They were walking along the river when it suddenly began to rain.",
           "Eleven people have joined the meeting and two are still missing.",
           "I never thought that learning the violin would be so difficult.",
           "If you need anything else, just call me on my mobile phone.",
           "The weather will be cloudy with some sunshine in the evening.",
           "She opened the window and looked at the mountains far away.",
           "Our new colleague starts on Monday, let us give her a warm welcome."],
    "de": ["Guten Morgen, hier ist das Buero, wie kann ich Ihnen helfen?",
           "Der Zug zum Flughafen faehrt alle zwanzig Minuten von Gleis neun.",
           "Wir moechten den Termin auf naechsten Mittwoch verschieben.",
           "Mein Bruder hat ein gelbes Fahrrad gekauft und faehrt damit durch den Park.",
           "Koennten Sie mir die Rechnung bitte noch einmal schicken?",
           "Sie gingen am Fluss entlang, als es ploetzlich zu regnen begann.",
           "Elf Leute sind in der Besprechung, und zwei fehlen noch.",
           "Ich haette nie gedacht, dass Geige lernen so schwierig ist.",
           "Das Wetter wird wolkig mit etwas Sonne am Abend.", "Unsere neue Kollegin beginnt am Montag."],
    "fr": ["Bonjour, ici le bureau, comment puis-je vous aider?",
           "Le train pour l'aeroport part toutes les vingt minutes du quai neuf.",
           "Nous voudrions deplacer le rendez-vous a mercredi prochain.",
           "Mon frere a achete un velo jaune et roule dans le parc.",
           "Pourriez-vous m'envoyer la facture encore une fois?",
           "Ils marchaient le long de la riviere quand il a commence a pleuvoir.",
           "Onze personnes sont dans la reunion et deux manquent encore.",
           "Le temps sera nuageux avec un peu de soleil le soir.", "Elle a ouvert la fenetre et regarde les montagnes.",
           "Notre nouvelle collegue commence lundi."],
    "pl": ["Dzien dobry, tu biuro, w czym moge pomoc?",
           "Pociag na lotnisko odjezdza co dwadziescia minut z peronu dziewiatego.",
           "Chcielibysmy przelozyc spotkanie na przyszla srode.", "Moj brat kupil zolty rower i jezdzi nim po parku.",
           "Czy moglaby pani wyslac mi fakture jeszcze raz?", "Szli wzdluz rzeki, gdy nagle zaczelo padac.",
           "Jedenascie osob jest na spotkaniu, a dwie jeszcze nie przyszly.",
           "Pogoda bedzie pochmurna z odrobina slonca wieczorem."],
    "es": ["Buenos dias, esta es la oficina, en que puedo ayudarle?",
           "El tren al aeropuerto sale cada veinte minutos del anden nueve.",
           "Queremos cambiar la cita para el proximo miercoles.",
           "Mi hermano compro una bicicleta amarilla y la usa en el parque.",
           "Podria enviarme la factura otra vez, por favor?", "Caminaban junto al rio cuando empezo a llover.",
           "Once personas estan en la reunion y faltan dos.",
           "El tiempo sera nublado con algo de sol por la tarde.",
           "Ella abrio la ventana y miro las montanas a lo lejos."],
    "it": ["Buongiorno, questo e l'ufficio, come posso aiutarla?",
           "Il treno per l'aeroporto parte ogni venti minuti dal binario nove.",
           "Vorremmo spostare l'appuntamento a mercoledi prossimo.", "Mio fratello ha comprato una bicicletta gialla.",
           "Potrebbe mandarmi di nuovo la fattura, per favore?",
           "Camminavano lungo il fiume quando comincio a piovere.",
           "Il tempo sara nuvoloso con un po di sole la sera.",
           "Lei apri la finestra e guardo le montagne lontane."],
    "nl": ["Goedemorgen, dit is het kantoor, waarmee kan ik u helpen?",
           "De trein naar het vliegveld vertrekt elke twintig minuten van spoor negen.",
           "We willen de afspraak graag verzetten naar volgende week woensdag.",
           "Mijn broer heeft een gele fiets gekocht en rijdt ermee door het park.",
           "Kunt u mij de rekening alstublieft nog een keer sturen?",
           "Ze liepen langs de rivier toen het plotseling begon te regenen.",
           "Elf mensen zijn in de vergadering en er ontbreken er nog twee.",
           "Het weer wordt bewolkt met wat zon in de avond."],
    "sv": ["God morgon, det här är kontoret, vad kan jag hjälpa till med?",
           "Tåget till flygplatsen går var tjugonde minut från spår nio.",
           "Vi skulle vilja flytta mötet till nästa onsdag eftermiddag.",
           "Min bror köpte en gul cykel och cyklar genom parken varje dag.",
           "Kan du skicka fakturan till mig en gång till?", "De gick längs floden när det plötsligt började regna.",
           "Elva personer är på mötet och två saknas fortfarande.", "Vädret blir molnigt med lite sol på kvällen."],
    "pt": ["Bom dia, aqui é do escritório, como posso ajudar?",
           "O comboio para o aeroporto parte de vinte em vinte minutos da linha nove.",
           "Gostaríamos de mudar a reunião para a próxima quarta-feira.",
           "O meu irmão comprou uma bicicleta amarela e anda nela pelo parque.",
           "Pode enviar-me a fatura outra vez, por favor?", "Eles caminhavam junto ao rio quando começou a chover.",
           "Onze pessoas estão na reunião e faltam duas.", "O tempo vai estar nublado com algum sol à noite."],
}

# Name, sex, source, voice or folder; those of the first list build the table, those of the second judge it. Nobody looked
# at those of the third while rules and bounds were chosen.
WORLD = [("June", "f", "sounds", "fr_CA_f_June"), ("Menardi", "f", "sounds", "it_IT_f_Menardi"),
         ("es_CO", "f", "sounds", "es"), ("awb", "m", "flite", "awb"), ("kal", "m", "flite", "kal16"),
         ("en-gb", "m", "en", "en-gb"), ("en+m1", "m", "en", "en+m1"), ("en+m5", "m", "en", "en+m5"),
         ("en+f1", "f", "en", "en+f1"), ("en+f5", "f", "en", "en+f5"), ("de+f4", "f", "de", "de+f4"),
         ("fr", "m", "fr", "fr"), ("pl", "m", "pl", "pl"), ("es+m4", "m", "es", "es+m4"), ("it+f5", "f", "it", "it+f5")]
HELD_OUT = [("Allison", "f", "sounds", "en_US_f_Allison"), ("Carlo", "m", "sounds", "it_IT_m_Carlo"),
            ("Ivrvoice", "f", "sounds", "ru_RU_f_IvrvoiceRU"), ("Armelle", "f", "sounds", "fr"),
            ("slt", "f", "flite", "slt"), ("rms", "m", "flite", "rms"), ("en-us", "m", "en", "en-us"),
            ("en+m3", "m", "en", "en+m3"), ("en+m7", "m", "en", "en+m7"), ("en+f2", "f", "en", "en+f2"),
            ("en+f3", "f", "en", "en+f3"), ("de+m2", "m", "de", "de+m2"), ("fr+f2", "f", "fr", "fr+f2"),
            ("fr+m6", "m", "fr", "fr+m6"), ("pl+f3", "f", "pl", "pl+f3")]

FRESH = [("nl+Michael", "m", "nl", "nl+Michael"), ("nl+steph3", "f", "nl", "nl+steph3"), ("sv", "m", "sv", "sv"),
         ("sv+f4", "f", "sv", "sv+f4"), ("pt+Denis", "m", "pt", "pt+Denis"), ("pt+Andrea", "f", "pt", "pt+Andrea"),
         ("en-scot+m2", "m", "en", "en-gb-scotland+m2"), ("en+linda", "f", "en", "en+linda"),
         ("de+miguel", "m", "de", "de+miguel"), ("it+grandma", "f", "it", "it+grandma")]


@dataclasses.dataclass
class Talker:
    name: str
    sex: str
    recorded: bool
    samples: np.ndarray   # sentences with short pauses, at the level of talkers in voice_material


def flite(voice, text):
    plain = "".join(c for c in text if c not in "',:")
    made = subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", f"flite=text='{plain}':voice={voice}", "-ac", "1",
                           "-ar", str(RATE), "-f", "s16le", "-"], stdout=subprocess.PIPE, check=True).stdout
    return np.frombuffer(made, "<i2").astype(float)


def sentences(source, voice):
    if source == "sounds":
        files = sorted(path for path in (material.SOUNDS / voice).glob("*") if path.suffix in (".wav", ".gsm", ".g722"))
        random.Random(5).shuffle(files)
        yield from (material.decoded(path, RATE) for path in files)
    elif source == "flite":
        yield from (flite(voice, text) for text in TEXTS["en"] + material.TEXTS["en"] + TEXTS["en"])
    else:
        yield from (material.spoken(voice, text, RATE, 155) for text in TEXTS[source] + material.TEXTS.get(source, []))


def arranged(pieces):
    chance, joined, length = random.Random(3), [], 0
    for piece in pieces:
        if len(piece) < 0.6 * RATE:
            continue
        joined += [material.utterance(piece, RATE)[0], np.zeros(int(RATE * chance.uniform(*GAP_SECONDS)))]
        length += len(joined[-1]) + len(joined[-2])
        if length > SECONDS * RATE:
            break
    return np.concatenate(joined) if joined else np.zeros(0)


def load(directory, rows):
    """The talkers of a list, those whose sounds are not installed left out; kept in the directory."""
    stamp = hashlib.sha256(pathlib.Path(__file__).read_bytes()).hexdigest()[:12]
    kept = pathlib.Path(directory) / f"talkers-{stamp}"
    kept.mkdir(parents=True, exist_ok=True)
    talkers = []
    for name, sex, source, voice in rows:
        file = kept / f"{name}.npy"
        if not file.exists():
            np.save(file, arranged(sentences(source, voice)))
        samples = np.load(file)
        if len(samples) > 30 * RATE:
            talkers.append(Talker(name, sex, source in ("sounds", "flite"), samples))
    return talkers
