#include "tests/calls/support/Baresip.h"

#include <array>
#include <poll.h>
#include <sys/socket.h>

#include "tests/calls/support/ScratchDirectory.h"
#include "tests/support/LoopbackPeer.h"

namespace {

constexpr const char* kLongestLife = "120";  // seconds, should nobody stop it

std::string account(const PhoneSetup& setup) {
  const std::string common = ";audio_codecs=" + setup.codec + ";answermode=auto";
  if (setup.registrar == 0)
    return "<sip:" + setup.user + "@127.0.0.1:" + std::to_string(setup.sipPort) + ">;regint=0" + common +
           "\n";
  return "<sip:" + setup.user + "@" + setup.domain + ">;auth_user=" + setup.user +
         ";auth_pass=" + setup.password + ";outbound=\"sip:127.0.0.1:" + std::to_string(setup.registrar) +
         "\";regint=" + std::to_string(setup.registerSeconds) + common + "\n";
}

std::string configuration(const PhoneSetup& setup, const std::filesystem::path& home) {
  std::string text = "sip_listen 127.0.0.1:" + std::to_string(setup.sipPort) +
                     "\nnet_interface 127.0.0.1\naudio_source aufile," + (home / "plays.wav").string() +
                     "\naudio_player aubridge,out\naudio_alert aubridge,alert\nausrc_srate " +
                     std::to_string(setup.plays.rate) + "\nrtp_ports " + std::to_string(setup.mediaPort) +
                     "-" + std::to_string(setup.mediaPort + 7) +
                     "\nctrl_tcp_listen 127.0.0.1:" + std::to_string(setup.controlPort) + "\nsnd_path " +
                     (home / "snd").string() +
                     "\nmodule_path /usr/lib/baresip/modules\nmodule_tmp uuid.so\nmodule_tmp account.so\n" +
                     "module_app menu.so\n";
  for (const char* module : {"g711", "g722", "aufile", "aubridge", "sndfile", "ctrl_tcp"})
    text += "module " + std::string(module) + ".so\n";
  return text;
}

}  // namespace

Baresip::Baresip(const std::filesystem::path& directory, const PhoneSetup& setup)
    : home(directory / ("phone-" + setup.user)), control(setup.controlPort) {
  std::filesystem::create_directories(home / "snd");
  writeWav(home / "plays.wav", setup.plays);
  writeFile(home / "accounts", account(setup));
  writeFile(home / "contacts", "");
  writeFile(home / "config", configuration(setup, home));
  program = std::make_unique<Process>(
      "baresip", std::vector<std::string>{"-f", home.string(), "-t", kLongestLife}, home / "output");
}

bool Baresip::ready(Seconds limit) {
  const sockaddr_in address = LoopbackPeer::address(control);
  return eventually(
      [&] {
        connection.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        return connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
      },
      limit);
}

void Baresip::command(const std::string& name, const std::string& parameters) {
  std::string json = R"({"command":")" + name + "\"";
  if (!parameters.empty()) json += R"(,"params":")" + parameters + "\"";
  json += "}";
  const std::string netstring = std::to_string(json.size()) + ":" + json + ",";
  send(connection.get(), netstring.data(), netstring.size(), MSG_NOSIGNAL);
}

void Baresip::readEvents() {
  pollfd waiting{connection.get(), POLLIN, 0};
  std::array<char, 4096> buffer;
  while (poll(&waiting, 1, 0) > 0) {
    const ssize_t length = recv(connection.get(), buffer.data(), buffer.size(), 0);
    if (length <= 0) return;
    events.append(buffer.data(), static_cast<std::size_t>(length));
  }
}

bool Baresip::event(const std::string& type, Seconds limit) {
  const std::string wanted = R"("type":")" + type + "\"";
  return eventually(
      [&] {
        readEvents();
        const std::size_t at = events.find(wanted, seen);
        if (at == std::string::npos) return false;
        seen = at + wanted.size();
        return true;
      },
      limit);
}

bool Baresip::registered(Seconds limit) {
  return eventually(
      [&] {
        command("reginfo");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        readEvents();
        return events.find("OK", seen) != std::string::npos;
      },
      limit);
}

std::filesystem::path Baresip::heardFile() const {
  std::filesystem::path newest;
  for (const auto& entry : std::filesystem::directory_iterator(home / "snd")) {
    const std::string name = entry.path().filename().string();
    if (name.ends_with("-dec.wav") && (newest.empty() || entry.path() > newest)) newest = entry.path();
  }
  return newest;
}

Sound Baresip::heard() const {
  const std::filesystem::path file = heardFile();
  return file.empty() ? Sound{} : readWav(file);
}
