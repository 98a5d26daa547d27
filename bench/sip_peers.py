"""What tests with many phones on 127.0.0.1 need: Quorvel in a directory of its own, messages, and audio that can be told
from any other."""

import contextlib
import hashlib
import os
import pathlib
import random
import re
import socket
import struct
import subprocess
import time

PACKET = 480   # bytes of mu-law, 60 ms: so that all calls of a process at once are not too much for one Python
TABLE_KB = 10_000  # those of phones, bindings and media have more, heap and stacks less
PATIENCE = 20  # seconds until an answer counts as missing
# Bytes of mu-law that come back as they were: 0x7F, the negative zero, does not.
TALK = bytes(byte if byte != 0x7F else 0x55 for byte in range(256))


def header(text, name):
    found = re.search(rf"^{name}: *(.*?)\r$", text, re.MULTILINE)
    return found[1] if found else ""


def sdp(port):
    return (f"v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio {port} RTP/AVP 0\r\n"
            "a=sendrecv\r\n")


def message(first, headers, body=""):
    content = "Content-Type: application/sdp\r\n" if body else ""
    return (first + "\r\n" + "".join(f"{name}: {value}\r\n" for name, value in headers) + content +
            f"Content-Length: {len(body)}\r\n\r\n{body}").encode()


def common(peer, call, method, cseq, to="<sip:200@127.0.0.1>", display=""):
    """Headers of a request from that socket, in order."""
    own = port_of(peer)
    return [("Via", f"SIP/2.0/UDP 127.0.0.1:{own};rport;branch=z9hG4bK{call}{method}{cseq}"),
            ("From", f"{display}<sip:100@127.0.0.1>;tag={call}"), ("To", to), ("Contact", f"<sip:100@127.0.0.1:{own}>"),
            ("Call-ID", call), ("CSeq", f"{cseq} {method}"), ("Max-Forwards", "70")]


def pbx_answer(request, sip, media, status="200 OK"):
    """What a PBX with those ports for SIP and media says to a request in the end; None where it says nothing."""
    method = request.split(" ", 1)[0]
    if method not in ("INVITE", "BYE", "REGISTER", "OPTIONS", "CANCEL"):
        return None
    to = header(request, "To")
    copied = {name: header(request, name) for name in ("Via", "From", "To", "Call-ID", "CSeq")}
    copied["To"] = to if ";tag=" in to else f"{to};tag=pbx"
    copied["Contact"] = (f"{header(request, 'Contact')};expires={header(request, 'Expires')}" if method == "REGISTER" else
                         f"<sip:200@127.0.0.1:{sip}>")
    return message(f"SIP/2.0 {status}", copied.items(), sdp(media) if method == "INVITE" else "")


def audio(ssrc, sequence):
    """A packet that no other one of any call is like."""
    return hashlib.shake_128(f"{ssrc}/{sequence}".encode()).digest(PACKET).translate(TALK)


def rtp(ssrc, sequence):
    return struct.pack(">BBHII", 0x80, 0, sequence, PACKET * sequence, ssrc) + audio(ssrc, sequence)


def udp():
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.bind(("127.0.0.1", 0))
    made.settimeout(0.1)
    return made


def port_of(peer):
    return peer.getsockname()[1]


RESERVED = {}  # first port of a block: sockets that keep other tests from it


def free_ports(count):
    """The first of that many ports that are free, even, below those that the kernel gives out. They are ours until they are
    given back: media ports are bound during calls only, so that a test beside this one would think them free."""
    for base in random.sample(range(10000, 23000, 2), 200):
        with contextlib.ExitStack() as reserved, contextlib.ExitStack() as tried, contextlib.suppress(OSError):
            for port in range(base, base + count):
                tried.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)).bind(("127.0.0.1", port))
                if port % 2 == 0:  # every block has the first of a pair
                    reserved.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)).bind(("127.0.85.1", port))
            RESERVED[base] = reserved.pop_all()
            return base
    raise RuntimeError("no free ports")


def give_back(base):
    if base in RESERVED:
        RESERVED.pop(base).close()


class Quorvel:
    """A process and what it has on the disk; `more` settings; `before` stands before the program's name, for a tracer."""

    def __init__(self, build, home, name, pbx, calls, more=None, before=()):
        self.build, self.home, self.before = build, home, list(before)
        # Another build's program, for instance one with a sanitizer, as the other tests take it.
        self.program = os.environ.get("QUORVEL_PROGRAM", str(build / "app" / "quorvel"))
        self.name = name
        ports = free_ports(2 + 4 * calls)
        self.sip = ports
        (home / "bin").mkdir()
        (home / "log").mkdir()
        self.configuration = home / "bin" / "quorvel.conf"
        settings = {"ConfigVersion": 2, "IPVersion": 4, "SipProxyIP": "127.0.0.1", "SipProxyPort": pbx, "SipUAIP": "127.0.0.1",
                    "SipUAPort": ports, "RtpUAPortInitVal": ports + 2, "Separator": "##", "DefaultCmd": "*##0",
                    "NumPhonesToAllocate": 2 * calls, "NumCallsToFilter": calls, "RegisterOrigPhones": 0,
                    "RegisterPairPhones": 0, "SipProxyArchitecture": 1, "NeedToCheckDTMF": 1, "CPUPower": 5,
                    "DetectAggressiveLevel": 2, "CleanAggressiveLevel": 8, "AECAlgorithm": "advanced",
                    "StatisticsFile": "statistics", "RealTimeAverageStatisticsFile": "average.html",
                    "RealTimeExtremeStatisticsFile": "extreme.html", "RefreshRateOfRealTimeStatistics": 2, **(more or {})}
        self.configuration.write_text("".join(f"{key}={value}\n" for key, value in settings.items()))
        self.address = settings["SipUAIP"], ports
        self.environment = {**os.environ, "KESTROVA_BIN": f"{home}/bin/"}
        self.process = None

    def launch(self):
        with open(self.home / "output", "a") as output:
            self.process = subprocess.Popen([*self.before, self.program, str(self.configuration), self.name],
                                            env=self.environment, stdin=subprocess.DEVNULL, stdout=output, stderr=output)

    def comes_up(self, seconds=PATIENCE):
        """Does it answer by then? Not when it ends before."""
        end = time.monotonic() + seconds
        with udp() as asker:
            question = message("OPTIONS sip:127.0.0.1 SIP/2.0", common(asker, "ready", "OPTIONS", 1))
            while time.monotonic() < end and self.process.poll() is None:
                with contextlib.suppress(TimeoutError, ConnectionError):
                    asker.sendto(question, self.address)
                    asker.recv(4096)
                    return True
        return False

    def start(self):
        self.launch()
        if not self.comes_up():
            raise RuntimeError("Quorvel does not answer")

    def control(self, *words):
        done = subprocess.run([str(self.build / "tools" / "quorvelctl"), "-c", str(self.configuration), "-i", self.name, *words],
                              env=self.environment, capture_output=True, text=True, timeout=120)
        if done.returncode != 0:
            raise RuntimeError(f"quorvelctl {' '.join(words)}: {done.stdout}{done.stderr}")
        return done.stdout

    def memory(self):
        """Resident kB: all of it, and without the tables that are made at the start, whose pages come in as they are first
        used, over hours, and which cannot grow."""
        maps = pathlib.Path(f"/proc/{self.process.pid}/smaps").read_text()
        sizes = [tuple(map(int, found)) for found in re.findall(r"^Size: +(\d+).*\n(?:.*\n){2}Rss: +(\d+)", maps, re.MULTILINE)]
        return sum(rss for _, rss in sizes), sum(rss for size, rss in sizes if size < TABLE_KB)

    def state(self):
        """Resident kB without the tables, descriptors, threads, calls up."""
        folder = pathlib.Path(f"/proc/{self.process.pid}")
        calls = int(re.search(r"(\d+) calls? up", self.control("status"))[1])
        return self.memory()[1], len(list((folder / "fd").iterdir())), len(list((folder / "task").iterdir())), calls

    def end(self):
        """Stops it, kills it when that does not help, and raises what a sanitizer has written about it."""
        if self.process and self.process.poll() is None:
            with contextlib.suppress(RuntimeError, subprocess.TimeoutExpired):
                self.control("stop")
                self.process.wait(PATIENCE)
        self.kill()
        output = (self.home / "output").read_text(errors="replace") if self.process else ""
        if re.search("Sanitizer|runtime error:", output):
            raise RuntimeError(output)

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        give_back(self.sip)
        for name in ("KestrovaQuorvel", "KestrovaQuorvelNumActiveCalls", "KestrovaTmpLog"):
            pathlib.Path(f"/tmp/{name}{self.name}").unlink(missing_ok=True)
