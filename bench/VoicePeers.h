// Noise suppressors and gain controls behind one face, so that a benchmark feeds them the same samples.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "engine/Kestrova.h"

// One channel of one system. Allocates what it needs when it is made.
class VoicePeer {
 public:
  virtual ~VoicePeer() = default;
  // Length of the frames it takes, in samples at its rate.
  [[nodiscard]] virtual std::size_t frameSamples() const = 0;
  // Processes one frame in place. A system that holds samples back gives silence first, so that every sample
  // stands at the time at which it was available.
  virtual void process(std::span<std::int16_t> frame) = 0;
};

// Names that makePeer knows.
const std::vector<std::string>& peerNames();

// iRate is 8000 or 16000 Hz; `init` is used by the systems named quorvel only. Throws std::runtime_error for
// an unknown name or when the system does not start.
std::unique_ptr<VoicePeer> makePeer(const std::string& sName, int iRate, const sKestrovaInit& init);
