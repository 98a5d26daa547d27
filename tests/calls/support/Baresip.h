// A headless phone: it plays a sound file into its calls, answers by itself, and records what it hears.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "common/Handle.h"
#include "tests/calls/support/Process.h"
#include "tests/calls/support/Sound.h"

struct PhoneSetup {
  std::string user;
  int sipPort = 0;
  int controlPort = 0;
  int mediaPort = 0;  // first of eight
  std::string codec;  // the one it speaks: "PCMU/8000/1"; G.722 is "G722/16000/1" here
  Sound plays{};      // 8 kHz for G.711, 16 kHz for G.722; the call ends with it
  int registrar = 0;  // port of a PBX on 127.0.0.1 to register with and to call through; 0 for none
  std::string password{};
  std::string domain = "127.0.0.1";  // of its address of record
  int registerSeconds = 60;
};

class Baresip {
 public:
  Baresip(const std::filesystem::path& directory, const PhoneSetup& setup);

  // Waits until commands can be given.
  bool ready(Seconds limit = Seconds(10));
  void dial(const std::string& uri) { command("dial", uri); }
  void hangUp() { command("hangup"); }
  void command(const std::string& name, const std::string& parameters = "");
  // Has the event (CALL_ESTABLISHED, CALL_CLOSED ...) been reported since it was last waited for?
  bool event(const std::string& type, Seconds limit);
  bool registered(Seconds limit = Seconds(10));

  // What came in over the last call, and the file it is in; empty before a call.
  std::filesystem::path heardFile() const;
  Sound heard() const;
  std::string report() const { return program->output() + "\nevents: " + events; }

 private:
  void readEvents();

  std::filesystem::path home;
  int control = 0;
  FileDescriptor connection;
  std::string events;
  std::size_t seen = 0;
  std::unique_ptr<Process> program;
};
