"""The programs that the benchmarks load, each started on 127.0.0.1 with a configuration of its own in a
temporary directory, pinned to one core, and stopped again; and how their CPU time and memory are read.

Every port is derived from one base, so that two runs side by side need only different bases:
  +60 Kamailio, +70 Quorvel, +80 rtpengine's ng port, +90 the bare relay, +100/+102 the load's two phones,
  +1000..+2023 the load's media, +3000..+5199 Quorvel's media, +5200..+6999 rtpengine's.
"""

import contextlib
import os
import pathlib
import signal
import socket
import subprocess
import tempfile
import time

TARGET_CORE = 0
LOAD_CORE = 1
START_SECONDS = 10
REAL_TIME_PRIORITY = "10"


class Ports:
    def __init__(self, base):
        self.kamailio, self.quorvel, self.ng, self.relay = base + 60, base + 70, base + 80, base + 90
        self.load = base + 100
        self.load_media = base + 1000
        self.quorvel_media = base + 3000
        self.rtpengine_media = base + 5200
        self.rtpengine_media_end = base + 6999


def pinned(core, real_time):
    """Command prefix that puts a program on its core, with real-time priority if wanted and permitted."""
    prefix = ["taskset", "-c", str(core)]
    if real_time and subprocess.run(["chrt", "-f", REAL_TIME_PRIORITY, "true"], stderr=subprocess.DEVNULL).returncode == 0:
        prefix += ["chrt", "-f", REAL_TIME_PRIORITY]
    return prefix


def family(pid):
    """The process and all its descendants."""
    members = [pid]
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # a thread that has just ended
            for child in (task / "children").read_text().split():
                members += family(int(child))
    return members


def process_cpu(pid):
    """User and system time of a process in seconds, all threads, also those that have ended."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Disturbance:
    """What the target's core did besides: time of other programs, and time that the hypervisor gave to other
    machines. Above a few percent, the figures of a run are rough."""

    def __init__(self):
        self.before = self.ticks()

    @staticmethod
    def ticks():
        fields = next(line for line in open("/proc/stat") if line.startswith(f"cpu{TARGET_CORE} ")).split()
        return [int(field) for field in fields[1:9]]

    def percent(self, target_seconds):
        user, nice, system, idle, iowait, irq, softirq, steal = (
            after - before for after, before in zip(self.ticks(), self.before))
        total = max(1, user + nice + system + idle + iowait + irq + softirq + steal)
        others = total - idle - iowait - target_seconds * os.sysconf("SC_CLK_TCK")
        return max(0, 100 * others / total)


def memory_kb(pid):
    """VmRSS, and from smaps_rollup Pss and the anonymous part of it, in kB."""
    figures = {}
    for name in ("status", "smaps_rollup"):
        for line in pathlib.Path(f"/proc/{pid}/{name}").read_text().splitlines():
            key, _, value = line.partition(":")
            if key in ("VmRSS", "VmHWM", "Pss", "Pss_Anon", "Threads"):
                figures[key] = int(value.split()[0])
    return figures


OPTIONS = ("OPTIONS sip:ready@127.0.0.1:{to} SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:{us};branch=z9hG4bKready\r\n"
           "From: <sip:ready@127.0.0.1>;tag=ready\r\nTo: <sip:ready@127.0.0.1>\r\nCall-ID: ready@127.0.0.1\r\n"
           "CSeq: 1 OPTIONS\r\nContact: <sip:ready@127.0.0.1:{us}>\r\nMax-Forwards: 70\r\nContent-Length: 0\r\n\r\n")


def wait_for_answer(port, question, what):
    """Repeats the question until anything comes back."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
        asker.bind(("127.0.0.1", 0))
        asker.settimeout(0.2)
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end:
            asker.sendto(question(asker.getsockname()[1]), ("127.0.0.1", port))
            with contextlib.suppress(TimeoutError, ConnectionRefusedError):
                return asker.recv(4096)
    raise RuntimeError(f"{what} does not answer on port {port}")


def wait_for_sip(port, what):
    wait_for_answer(port, lambda us: OPTIONS.format(to=port, us=us).encode(), what)


class Program:
    """A running program with its temporary directory; a context manager."""

    def __init__(self, name, real_time, stop_signal=signal.SIGTERM):
        self.name = name
        self.prefix = pinned(TARGET_CORE, real_time)
        self.stop_signal = stop_signal
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix=f"bench-{name}-"))
        self.process = None

    def launch(self, command, environment=None):
        log = open(self.directory / "output", "w")
        self.process = subprocess.Popen(self.prefix + command, cwd=self.directory, stdin=subprocess.DEVNULL, stdout=log,
                                        stderr=log, env={**os.environ, **(environment or {})}, start_new_session=True)

    @property
    def pid(self):
        return self.process.pid

    def cpu(self):
        return sum(process_cpu(pid) for pid in family(self.pid))

    def output(self):
        return (self.directory / "output").read_text(errors="replace")

    def __enter__(self):
        try:
            self.start()
        except BaseException as failure:
            failure.add_note(self.output() if self.process else "not started")
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *_):
        if self.process:
            if self.process.poll() is None:
                self.process.send_signal(self.stop_signal)
            try:
                self.process.wait(8)
            except subprocess.TimeoutExpired:
                os.killpg(self.pid, signal.SIGKILL)
                self.process.wait(8)
        subprocess.run(["rm", "-rf", str(self.directory)], check=False)


KAMAILIO = """#!KAMAILIO
debug=0
log_stderror=yes
fork=yes
children=1
disable_tcp=yes
auto_aliases=no
dns=no
rev_dns=no
listen=udp:127.0.0.1:{port}
loadmodule "tm.so"
loadmodule "sl.so"
loadmodule "rr.so"
loadmodule "siputils.so"
loadmodule "textops.so"
loadmodule "pv.so"
{media_module}
request_route {{
  if (is_method("OPTIONS")) {{ sl_send_reply("200", "OK"); exit; }}
  if (has_totag()) {{
    if (!loose_route()) exit;
    {media_bye}
    t_relay();
    exit;
  }}
  record_route();
  {media_offer}
  t_relay();
}}
{answer_route}
"""


class Kamailio(Program):
    """A stateful proxy with record_route(); with an ng port, rtpengine's addresses in both SDPs."""

    def __init__(self, ports, real_time, media=False):
        super().__init__("kamailio", real_time)
        self.ports, self.media = ports, media

    def start(self):
        self.port = self.ports.kamailio
        engine = {"media_module": "", "media_bye": "", "media_offer": "", "answer_route": ""}
        if self.media:
            engine = {
                "media_module": 'loadmodule "rtpengine.so"\n'
                                f'modparam("rtpengine", "rtpengine_sock", "udp:127.0.0.1:{self.ports.ng}")',
                "media_bye": 'if (is_method("BYE")) rtpengine_delete();',
                "media_offer": 'rtpengine_offer("replace-origin replace-session-connection"); t_on_reply("ANSWER");',
                "answer_route": 'onreply_route[ANSWER] { if (has_body("application/sdp")) '
                                'rtpengine_answer("replace-origin replace-session-connection"); }'}
        (self.directory / "cfg").write_text(KAMAILIO.format(port=self.port, **engine))
        # Ended transactions stay for 5 s, so shared memory has to hold some 10,000 of them. The default
        # allocator checks its heap and takes two thirds of the time; "fm" is the fast one.
        self.launch(["kamailio", "-DD", "-E", "-f", str(self.directory / "cfg"), "-n", "1", "-m", "2048", "-M", "16", "-x", "fm", "-X", "fm",
                     "-w", str(self.directory), "-Y", str(self.directory), "-P", str(self.directory / "pid")])
        wait_for_sip(self.port, "Kamailio")


def bencode(value):
    if isinstance(value, dict):
        return b"d" + b"".join(bencode(key) + bencode(value[key]) for key in sorted(value)) + b"e"
    if isinstance(value, list):
        return b"l" + b"".join(bencode(item) for item in value) + b"e"
    if isinstance(value, int):
        return b"i%de" % value
    raw = value.encode()
    return b"%d:%s" % (len(raw), raw)


def bdecode(raw, at=0):
    """The value that starts at a position, and where it ends."""
    kind = raw[at:at + 1]
    if kind == b"i":
        end = raw.index(b"e", at)
        return int(raw[at + 1:end]), end + 1
    if kind in (b"l", b"d"):
        items, at = [], at + 1
        while raw[at:at + 1] != b"e":
            item, at = bdecode(raw, at)
            items.append(item)
        return (dict(zip(items[::2], items[1::2])) if kind == b"d" else items), at + 1
    colon = raw.index(b":", at)
    end = colon + 1 + int(raw[at:colon])
    return raw[colon + 1:end].decode(errors="replace"), end


class Rtpengine(Program):
    """rtpengine in user space, with its ng control protocol."""

    def __init__(self, ports, real_time, threads=2):
        super().__init__("rtpengine", real_time)
        self.ports, self.threads = ports, threads

    def start(self):
        self.launch(["rtpengine", "--config-file=none", "--foreground", "--log-stderr", "--log-level=3", "--table=-1",
                     "--interface=127.0.0.1", f"--listen-ng=127.0.0.1:{self.ports.ng}", f"--num-threads={self.threads}",
                     "--port-min", str(self.ports.rtpengine_media), "--port-max", str(self.ports.rtpengine_media_end),
                     "--delete-delay=0"])
        wait_for_answer(self.ports.ng, lambda _: b"ready " + bencode({"command": "ping"}), "rtpengine")

    def ask(self, command):
        """One ng command and its answer."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as asker:
            asker.settimeout(3)
            asker.sendto(b"c%d " % time.monotonic_ns() + bencode(command), ("127.0.0.1", self.ports.ng))
            answer = bdecode(asker.recv(65536).split(b" ", 1)[1])[0]
        if answer.get("result") not in ("ok", "pong"):
            raise RuntimeError(f"rtpengine refuses: {answer}")
        return answer


QUORVEL = """ConfigVersion=2
IPVersion=4
SipProxyIP=127.0.0.1
SipProxyPort={callee}
SipUAIP=127.0.0.1
SipProxyDomain=127.0.0.1
SipUAIPForBinding=127.0.0.1
SipUAPort={port}
RtpUAPortInitVal={media}
Separator=##
DefaultCmd=*##0
NumPhonesToAllocate={slots}
NumCallsToFilter={calls}
RegisterOrigPhones=0
RegisterPairPhones=0
NeedToCheckDTMF=0
CPUPower=5
DetectAggressiveLevel=2
CleanAggressiveLevel=8
AECAlgorithm=basic
RTPTimeoutInSeconds=600
{extra}
"""


class Quorvel(Program):
    """Quorvel without processing, every call going on to the load's callee."""

    def __init__(self, ports, real_time, binary, slots=254, extra=""):
        super().__init__("quorvel", real_time, signal.SIGINT)
        self.ports, self.binary, self.slots, self.extra = ports, pathlib.Path(binary).resolve(), slots, extra

    def start(self):
        self.port = self.ports.quorvel
        for folder in ("bin", "log"):
            (self.directory / folder).mkdir()
        (self.directory / "bin" / "bench.conf").write_text(QUORVEL.format(
            callee=self.ports.load + 2, port=self.port, media=self.ports.quorvel_media, slots=self.slots,
            calls=min(127, self.slots // 2), extra=self.extra))
        self.launch([str(self.binary), str(self.directory / "bin" / "bench.conf"), f"bench{os.getpid()}"],
                    {"KESTROVA_BIN": f"{self.directory}/bin/"})
        wait_for_sip(self.port, "Quorvel")

    def log(self):
        return "".join(path.read_text(errors="replace") for path in (self.directory / "log").iterdir())

    def __exit__(self, *context):
        super().__exit__(*context)
        for name in ("KestrovaQuorvel", "KestrovaTmpLog", "KestrovaQuorvelNumActiveCalls"):
            pathlib.Path(f"/tmp/{name}bench{os.getpid()}").unlink(missing_ok=True)


def table(heading, rows):
    """Markdown."""
    lines = [heading, ["---"] * len(heading)] + rows
    return "\n".join("| " + " | ".join(str(cell) for cell in line) + " |" for line in lines)


def print_aims(aims):
    """Aims as a list, each met, missed, or (None) not comparable. True when all are met."""
    print()
    aims = list(aims)
    for text, met in aims:
        print(f"- {'not comparable' if met is None else 'met' if met else 'MISSED'}: {text}")
    return all(met for _, met in aims)


def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
    return f"{model}, {os.cpu_count()} cores, Linux {os.uname().release}, load {os.getloadavg()[0]:.2f} at the start"
