"""Puts a running Quorvel between two real SIP phones and sends a noisy call through it.

Everything runs on loopback in a directory of its own. The program, the phones and the capture are stopped at the end,
also when interrupted; recordings, log, statistics and configuration stay where the report says.
"""

import array
import ctypes
import json
import math
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import warnings
import wave

with warnings.catch_warnings():  # leaves Python with 3.13; Debian 12 has 3.11
    warnings.simplefilter("ignore", DeprecationWarning)
    import audioop

CALL_SECONDS = 20
RATE = 8000
FRAME = RATE // 50  # 20 ms
SPOKEN = ("/usr/share/asterisk/sounds/en_US_f_Allison",
          ["vm-nobodyavail", "please-try-call-later", "pls-hold-while-try", "tt-somethingwrong",
           "cannot-complete-as-dialed"])
PAUSE = "1.4"  # seconds after each, in which the noise is heard alone


# ---- Sound -------------------------------------------------------------------------------------------------------

def sox(*arguments):
    subprocess.run(["sox", "-V1", *arguments], check=True)


def read_samples(path):
    with wave.open(path) as file:
        data = file.readframes(file.getnframes())
        if file.getnchannels() == 2:
            data = audioop.tomono(data, 2, 0.5, 0.5)
        if file.getframerate() != RATE:
            data, _ = audioop.ratecv(data, 2, 1, file.getframerate(), RATE, None)
    return data


def make_speech(directory):
    """The caller's clean speech (a recorded talker with pauses), the same in noise, and the other party's speech."""
    folder, names = SPOKEN
    clean = f"{directory}/caller-clean.wav"
    parts = []
    for number, name in enumerate(names):
        parts.append(f"{directory}/said{number}.wav")
        if os.path.exists(f"{folder}/{name}.wav"):
            source = f"{folder}/{name}.wav"
        else:
            source = f"{directory}/espeak.wav"
            subprocess.run(["espeak-ng", "-w", source, f"This is sentence {number} of a call through Quorvel."],
                           check=True)
        sox(source, "-r", str(RATE), "-c", "1", "-b", "16", parts[-1], "pad", "0", PAUSE)
    sox(*parts, clean, "pad", "0.8", "gain", "-n", "-3", "trim", "0", str(CALL_SECONDS))
    for part in parts:
        os.remove(part)
    noise = f"{directory}/noise.wav"
    noisy = f"{directory}/caller-noisy.wav"
    sox("-n", "-r", str(RATE), "-c", "1", "-b", "16", noise, "synth", str(CALL_SECONDS), "pinknoise", "gain", "-n",
        "-22")
    sox("-m", "-v", "0.9", clean, "-v", "1", noise, "-b", "16", noisy, "trim", "0", str(CALL_SECONDS))
    callee = f"{directory}/callee.wav"
    spoken = f"{directory}/callee-espeak.wav"
    text = "Hello, I hear you well. I am the other party of this call, and I keep talking until you hang up. " * 4
    subprocess.run(["espeak-ng", "-v", "en-us", "-s", "150", "-w", spoken, text], check=True)
    sox(spoken, "-r", str(RATE), "-c", "1", "-b", "16", callee, "gain", "-n", "-6", "trim", "0", str(CALL_SECONDS))
    return clean, noisy, callee


def decibels(value):
    return 20 * math.log10(max(value, 1) / 32768)


def frames_of(data):
    size = 2 * FRAME
    return [data[i:i + size] for i in range(0, len(data) - size + 1, size)]


def find_offset(heard, played):
    """Where in `heard` the played sound begins, in samples, and how alike they are there (0 to 1). Sought by the
    loudest two seconds of what was played."""
    heard_samples = array.array("h", heard)
    length = 2 * RATE
    start = max(range(0, max(1, len(played) // 2 - length), RATE // 2),
                key=lambda at: audioop.rms(played[2 * at:2 * (at + length)], 2))
    piece = played[2 * start:2 * (start + length)]
    if len(heard_samples) < length or not audioop.rms(piece, 2) or not audioop.rms(heard, 2):
        return None, 0.0
    at, factor = audioop.findfit(heard, piece)
    window = heard[2 * at:2 * at + len(piece)]
    energy = audioop.rms(window, 2)
    alike = 0.0 if energy == 0 else min(1.0, abs(audioop.findfactor(window, piece)) * audioop.rms(piece, 2) / energy)
    return at - start, alike


def levels(data, clean, offset):
    """Level in the pauses and during speech, in dB of full scale, where the clean speech says which is which."""
    loudest = max(audioop.rms(frame, 2) for frame in frames_of(clean))
    pause, speech = [], []
    recent = []
    for index, frame in enumerate(frames_of(clean)):
        level = audioop.rms(frame, 2)
        recent = (recent + [level])[-10:]  # a pause counts after 200 ms
        begin = 2 * (index * FRAME + offset)
        piece = data[begin:begin + 2 * FRAME] if begin >= 0 else b""
        if len(piece) < 2 * FRAME:
            continue
        if level > loudest / 10:
            speech.append(audioop.rms(piece, 2) ** 2)
        elif max(recent) < loudest / 100:
            pause.append(audioop.rms(piece, 2) ** 2)
    mean = lambda squares: decibels(math.sqrt(sum(squares) / len(squares))) if squares else float("nan")
    return mean(pause), mean(speech)


# ---- Processes ---------------------------------------------------------------------------------------------------

def free_port_pair(span=2):
    """An even UDP port whose next `span` - 1 ports are free as well."""
    for _ in range(200):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            first = (probe.getsockname()[1] + 1) & ~1
        try:
            held = []
            for port in range(first, first + span):
                held.append(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
                held[-1].bind(("127.0.0.1", port))
            return first
        except OSError:
            continue
        finally:
            for each in held:
                each.close()
    raise RuntimeError("no free UDP ports")


def start(arguments, output, **more):
    """Starts a program that ends with this one, however this one ends. A ^C at the terminal does not reach it: it
    is stopped in order."""
    library = ctypes.CDLL(None)
    die_with_parent = lambda: library.prctl(1, signal.SIGKILL)
    return subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                            start_new_session=True, preexec_fn=die_with_parent, **more)


class Phone:
    """A headless baresip, steered over its control port."""

    def __init__(self, directory, name, plays, answers):
        self.directory = f"{directory}/{name}"
        self.sip_port = free_port_pair()
        self.rtp_port = free_port_pair(10)
        self.control_port = free_port_pair()
        os.makedirs(f"{self.directory}/snd")
        mode = "auto" if answers else "manual"
        with open(f"{self.directory}/accounts", "w", encoding="ascii") as file:
            file.write(f"<sip:{name}@127.0.0.1:{self.sip_port}>;regint=0;audio_codecs=PCMU/8000/1;answermode={mode}\n")
        open(f"{self.directory}/contacts", "w", encoding="ascii").close()
        with open(f"{self.directory}/config", "w", encoding="ascii") as file:
            file.write(f"sip_listen 127.0.0.1:{self.sip_port}\nnet_interface 127.0.0.1\n"
                       f"audio_source aufile,{plays}\naudio_player aubridge,out\naudio_alert aubridge,alert\n"
                       "module_path /usr/lib/baresip/modules\nmodule g711.so\nmodule aufile.so\nmodule aubridge.so\n"
                       "module sndfile.so\nmodule ctrl_tcp.so\nmodule_tmp uuid.so\nmodule_tmp account.so\n"
                       f"module_app menu.so\nsnd_path {self.directory}/snd\n"
                       f"ctrl_tcp_listen 127.0.0.1:{self.control_port}\n"
                       f"rtp_ports {self.rtp_port}-{self.rtp_port + 9}\n")
        self.output = open(f"{self.directory}/output.txt", "w", encoding="utf-8")
        self.process = start(["baresip", "-f", self.directory, "-t", "120"], self.output)
        self.control = self._connect()
        self.pending = b""

    def _connect(self):
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            try:
                return socket.create_connection(("127.0.0.1", self.control_port), timeout=1)
            except OSError:
                if self.process.poll() is not None:
                    break
                time.sleep(0.1)
        raise RuntimeError(f"the phone did not start; see {self.directory}/output.txt")

    def command(self, name, parameters=""):
        text = json.dumps({"command": name, "params": parameters}).encode()
        self.control.sendall(b"%d:%s," % (len(text), text))

    def wait_for(self, event, seconds):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            colon = self.pending.find(b":")
            if colon > 0 and len(self.pending) >= colon + 2 + int(self.pending[:colon]):
                end = colon + 1 + int(self.pending[:colon])
                message = json.loads(self.pending[colon + 1:end])
                self.pending = self.pending[end + 1:]
                if message.get("type") == event:
                    return True
                continue
            self.control.settimeout(max(0.01, deadline - time.monotonic()))
            try:
                data = self.control.recv(4096)
            except (TimeoutError, OSError):
                return False
            if not data:
                return False
            self.pending += data
        return False

    def heard(self):
        names = sorted(name for name in os.listdir(f"{self.directory}/snd") if name.endswith("-dec.wav"))
        return f"{self.directory}/snd/{names[-1]}" if names else None

    def stop(self):
        stop_process(self.process, signal.SIGTERM)
        self.output.close()


def stop_process(process, first):
    for sign in (first, signal.SIGKILL):
        if process.poll() is not None:
            return
        process.send_signal(sign)
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            continue


class Capture:
    """Times every RTP packet into and out of Quorvel on the loopback device, to tell the delay it adds. Needs root."""

    PACKET_OUTGOING = 4

    def __init__(self, ports):
        self.ports = ports
        self.arrived = {}
        self.delays = []
        self.forwarded = [0, 0]
        self.running = True
        self.socket = None
        try:
            self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
            self.socket.bind(("lo", 0))
            self.socket.setsockopt(socket.SOL_SOCKET, 35, 1)  # SO_TIMESTAMPNS
            self.socket.settimeout(0.2)
        except OSError:
            self.socket = None
            return
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while self.running:
            try:
                data, ancillary, _, address = self.socket.recvmsg(2048, 128)
            except OSError:
                continue
            if address[2] == self.PACKET_OUTGOING or len(data) < 14 + 20 + 8 + 12 or data[23] != 17:
                continue
            udp = 14 + 4 * (data[14] & 15)
            source, destination = struct.unpack_from("!HH", data, udp)
            seconds, nanoseconds = struct.unpack_from("ll", ancillary[0][2]) if ancillary else (0, 0)
            moment = seconds * 1_000_000_000 + nanoseconds
            sequence = data[udp + 10:udp + 12] + data[udp + 16:udp + 20]  # number and SSRC
            if destination in self.ports:
                self.arrived[(sequence, self.ports[destination])] = moment
            elif source in self.ports:
                side = 1 - self.ports[source]
                came = self.arrived.pop((sequence, side), None)
                if came is not None:
                    self.delays.append(moment - came)
                    self.forwarded[side] += 1

    def stop(self):
        self.running = False
        if self.socket is not None:
            self.thread.join()
            self.socket.close()


# ---- The call ----------------------------------------------------------------------------------------------------

def write_configuration(directory, sip_port, rtp_port, pbx_port):
    path = f"{directory}/bin/quorvel.conf"
    with open(path, "w", encoding="ascii") as file:
        file.write(f"""ConfigVersion=2
IPVersion=4
SipProxyIP=127.0.0.1
SipProxyPort={pbx_port}
SipUAIP=127.0.0.1
SipUAPort={sip_port}
RtpUAPortInitVal={rtp_port}
Separator=##
NumPhonesToAllocate=2
RegisterOrigPhones=0
RegisterPairPhones=0
CPUPower=5
DetectAggressiveLevel=2
CleanAggressiveLevel=10
AECAlgorithm=advanced
; the caller's voice is processed before the other party hears it
DefaultCmd=*##1
NeedToDoNoiseCancellation=1
; *3* switches the processing off, *2*# on; a tone answers
NeedToCheckDTMF=1
DTMFRegistraterPrefix=*1*
DTMFActivatePrefix=*2*
DTMFSuffix=#
DTMFDisable=*3*
RegistrationLibrary=../voices/
DTMFOKToneFile=../tones/ok.raw
DTMFFailToneFile=../tones/fail.raw
OrigRecordingLibrary=../recordings/
CleanRecordingLibrary=../recordings/
StatisticsFile=../statistics.txt
RealTimeAverageStatisticsFile=../average.html
RealTimeExtremeStatisticsFile=../extreme.html
""")
    return path


def wait_until_answering(port, process):
    request = ("OPTIONS sip:127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:{0};branch=z9hG4bKdemo\r\n"
               "From: <sip:demo@127.0.0.1>;tag=1\r\nTo: <sip:127.0.0.1>\r\nCall-ID: demo-ready\r\n"
               "CSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        probe.settimeout(0.3)
        for _ in range(40):
            if process.poll() is not None:
                break
            probe.sendto(request.format(probe.getsockname()[1]).encode(), ("127.0.0.1", port))
            try:
                if probe.recv(4096).startswith(b"SIP/2.0 200"):
                    return
            except OSError:
                pass
    raise RuntimeError("Quorvel did not start")


def end_of(path):
    if not os.path.exists(path):
        return "(there is none)"
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()[-2000:]


def show_progress(seconds, is_up):
    """A line that grows on a terminal; a few lines where the output goes to a file."""
    begin = time.monotonic()
    on_terminal = sys.stdout.isatty()
    told = -1
    while (passed := time.monotonic() - begin) < seconds and is_up():
        if on_terminal:
            done = int(40 * passed / seconds)
            print(f"\rCall in progress  [{'#' * done}{'.' * (40 - done)}] {passed:4.0f} s of {seconds} s", end="",
                  flush=True)
        elif int(passed) // 5 != told:
            told = int(passed) // 5
            print(f"Call in progress: {passed:.0f} s of {seconds} s", flush=True)
        time.sleep(0.2)
    print(f"\rCall finished after {time.monotonic() - begin:.0f} s{' ' * 50}" if on_terminal else "Call finished",
          flush=True)


def field(line, name, side):
    """A figure of the statistics line, of side 0 or 1."""
    pieces = line.split(f"{name} (")
    return pieces[side + 1].split(")")[0] if len(pieces) > side + 1 else "?"


def in_words(noise, speech):
    """What the changes of level, in dB, mean to the called party."""
    if math.isnan(noise) or math.isnan(speech):
        return "The call was too short to compare noise and speech."
    if abs(noise) < 1 and abs(speech) < 1:
        return "The called party heard noise and speech as they were spoken: nothing was taken away or added."
    quieter = "less" if noise < 0 else "more"
    kept = "kept its level" if abs(speech) < 1 else f"is {abs(speech):.0f} dB {'louder' if speech > 0 else 'softer'}"
    return f"The called party heard {abs(noise):.0f} dB {quieter} noise between the words; the speech {kept}."


def recording(directory, ending):
    """One of Quorvel's own recordings, headerless samples."""
    names = [name for name in os.listdir(f"{directory}/recordings") if name.endswith(ending)]
    if len(names) != 1:
        raise RuntimeError(f"there should be one recording {ending} in {directory}/recordings")
    with open(f"{directory}/recordings/{names[0]}", "rb") as file:
        return file.read()


def write_wav(path, data):
    with wave.open(path, "wb") as file:
        file.setnchannels(1)
        file.setsampwidth(2)
        file.setframerate(RATE)
        file.writeframes(data)


def draw(directory, program):
    """Draws the call: what Quorvel received goes through the engine once more, which must give what the call gave."""
    received, again, picture = (f"{directory}/{name}" for name in ("received.wav", "again.wav", "call.png"))
    write_wav(received, recording(directory, "-orig"))
    subprocess.run([program, received, again, "--picture", picture, "--dtmf", "0"], check=True)
    with wave.open(again) as file:
        same = file.readframes(file.getnframes()) == recording(directory, "-clean")
    print("  the same sound, sent through the engine again, gives "
          f"{'exactly what the call gave' if same else 'SOMETHING ELSE than the call gave'}")
    return picture


def report(directory, sounds, caller, callee, capture, draws):
    clean, noisy, answer = sounds
    statistics = open(f"{directory}/statistics.txt", encoding="utf-8", errors="replace").read()
    closed = [line for line in statistics.splitlines() if "Closed session" in line]
    if not closed:
        raise RuntimeError(f"the call left no statistics line in {directory}/statistics.txt")
    line = closed[-1]
    heard_by_callee, heard_by_caller = callee.heard(), caller.heard()
    if heard_by_callee is None or heard_by_caller is None:
        raise RuntimeError("a phone recorded nothing")
    heard = read_samples(heard_by_callee)
    played = read_samples(noisy)
    offset, alike = find_offset(heard, played)
    back_offset, back_alike = find_offset(read_samples(heard_by_caller), read_samples(answer))
    if offset is None or back_offset is None:
        raise RuntimeError("one of the parties heard nothing")

    print("\nWhat the call was like")
    for side, name in ((0, "caller -> called party"), (1, "called party -> caller")):
        packets = f"{capture.forwarded[side]} packets, " if capture.delays else ""
        print(f"  {name}:  {packets}packet loss {field(line, 'Packet Loss', side)}, "
              f"average MOS {field(line, 'Avg MOS', side)}, average jitter {field(line, 'Avg Jitter', side)}")
    print(f"  recognised what the caller said:        {100 * alike:.0f} % alike")
    print(f"  recognised what the called party said:  {100 * back_alike:.0f} % alike")
    if capture.delays:
        ordered = sorted(capture.delays)
        print("  packets pass Quorvel in "
              f"{ordered[len(ordered) // 2] / 1000:.0f} us at the median, "
              f"{ordered[len(ordered) * 99 // 100] / 1000:.0f} us at the 99th percentile; "
              "the engine holds the caller's voice 24 ms besides")
    else:
        print("  delay added: not measured (timing packets on the loopback device needs root)")
    reference = read_samples(clean)
    before = levels(played, reference, 0)
    after = levels(heard, reference, offset)
    print(f"  noise in the caller's pauses:  {before[0]:6.1f} dB spoken, {after[0]:6.1f} dB heard "
          f"({after[0] - before[0]:+.1f} dB)")
    print(f"  the caller's speech:           {before[1]:6.1f} dB spoken, {after[1]:6.1f} dB heard "
          f"({after[1] - before[1]:+.1f} dB)")

    print(f"  {in_words(after[0] - before[0], after[1] - before[1])}")
    picture = draw(directory, draws)
    both = f"{directory}/before-then-after.wav"
    sox(noisy, "-r", str(RATE), heard_by_callee, both, "remix", "1")

    print("\nWhere everything lies")
    for what, path in (("picture of the call", picture), ("to listen: before, then after", both),
                       ("what the caller said", noisy), ("what the called party heard", heard_by_callee),
                       ("what the caller heard", heard_by_caller),
                       ("Quorvel's own recordings", f"{directory}/recordings/"),
                       ("log", f"{directory}/log/"), ("statistics", f"{directory}/statistics.txt"),
                       ("live page", f"{directory}/average.html"),
                       ("configuration", f"{directory}/bin/quorvel.conf")):
        if os.path.exists(path):
            print(f"  {what + ':':31} {path}")
    if alike < 0.3 or back_alike < 0.5:
        raise RuntimeError("the audio that arrived is not the audio that was sent")


def main(program, draws):
    directory = tempfile.mkdtemp(prefix="quorvel-demo-")
    for name in ("bin", "log", "recordings", "voices"):
        os.mkdir(f"{directory}/{name}")
    shutil.copytree(f"{os.path.dirname(os.path.abspath(__file__))}/../../packaging/tones", f"{directory}/tones")
    instance = f"-demo{os.getpid()}"
    log = f"{directory}/log/errLog{instance}"
    print("Making the speech and the noise", flush=True)
    sounds = make_speech(directory)
    started = []
    capture = None
    try:
        callee = Phone(directory, "callee", sounds[2], answers=True)
        started.append(callee.stop)
        sip_port, rtp_port = free_port_pair(), free_port_pair(4)
        configuration = write_configuration(directory, sip_port, rtp_port, callee.sip_port)
        quorvel = start([program, configuration, instance], None,
                        env={**os.environ, "KESTROVA_BIN": f"{directory}/bin/"})
        started.append(lambda: stop_process(quorvel, signal.SIGINT))
        wait_until_answering(sip_port, quorvel)
        caller = Phone(directory, "caller", sounds[1], answers=False)
        started.append(caller.stop)
        capture = Capture({rtp_port: 0, rtp_port + 2: 1})
        print(f"Quorvel answers on 127.0.0.1:{sip_port}; the caller dials the called party through it", flush=True)
        caller.command("dial", f"sip:callee@127.0.0.1:{sip_port}")
        if not caller.wait_for("CALL_ESTABLISHED", 10):
            raise RuntimeError("the call was not established")
        show_progress(CALL_SECONDS, lambda: quorvel.poll() is None)
        caller.command("hangup")
        caller.wait_for("CALL_CLOSED", 3)
        time.sleep(0.5)  # the BYE reaches the other phone, recordings are closed
        capture.stop()
        caller.stop()
        callee.stop()
        report(directory, sounds, caller, callee, capture, draws)
    except RuntimeError:
        print(f"\nThe end of Quorvel's log, {log}:\n{end_of(log)}", file=sys.stderr)
        raise
    finally:
        if capture is not None:
            capture.running = False
        for stop in reversed(started):
            stop()
        for name in ("KestrovaQuorvel", "KestrovaQuorvelNumActiveCalls", "KestrovaTmpLog"):
            if os.path.exists(f"/tmp/{name}{instance}"):
                os.remove(f"/tmp/{name}{instance}")


if __name__ == "__main__":
    for end_signal in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(end_signal, lambda number, _: sys.exit(128 + number))
    for needed in ("baresip", "sox", "espeak-ng"):
        if shutil.which(needed) is None:
            sys.exit(f"{needed} is missing")
    try:
        main(os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2]))
    except KeyboardInterrupt:
        sys.exit("\nInterrupted; everything was stopped.")
    except (RuntimeError, OSError, subprocess.CalledProcessError) as failure:
        sys.exit(f"\nThe demo failed: {failure}")
