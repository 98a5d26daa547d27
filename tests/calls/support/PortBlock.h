// A hundred UDP and TCP ports for one test process. Blocks are told apart by lock files, so that tests may
// run side by side, and a block that any other program uses is passed over.
#pragma once

#include "common/Handle.h"

class PortBlock {
 public:
  PortBlock();  // throws std::runtime_error when every block is taken

  int sip() const { return first; }
  int pbx() const { return first + 2; }
  int phone(int number) const {
    return first + 4 + 2 * number;
  }  // SIP ports of phones, 0 to 3; TLS takes the next
  int control(int number) const { return first + 12 + number; }    // control ports of phones, 0 to 7
  int relay() const { return first + 20; }                         // Quorvel's RTP ports: 20 to 59
  int media(int number) const { return first + 60 + 8 * number; }  // RTP ports of phones, 0 to 4, eight each

 private:
  int first = 0;
  FileDescriptor lock;
};
