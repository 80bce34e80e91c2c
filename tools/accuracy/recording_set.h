// SPDX-License-Identifier: Apache-2.0
// The recordings with optical truth: a gzip-compressed CSV per recording
// (t, ax..az in g, mx..mz in gauss, gx..gz in rad/s, qw..qz device to the
// capture frame, nan where the capture had no value), read by the replay
// tool's reader, and a JSON sidecar with the reference calibration and the
// recording's undisturbed field.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "tools/replay/recording.h"

namespace quelta::accuracy {

struct OffsetPhase {
  double from = -1e300;  // s
  double to = 1e300;     // s
  std::array<double, 3> offset{};
};

struct TruthRecording {
  std::string name;
  std::string disturbance;  // "none" when undisturbed
  bool phone = false;       // a phone (n5_*, i4s_*, i5_*) or the board (broad_*)
  std::string kind;         // "board", "phone" (Nexus 5) or "iPhone"
  std::array<double, 3> gyroBiasVsTruth{};  // rad/s, the sidecar's measured bias of a raw gyroscope
  std::array<double, 3> worldField{};  // capture frame, gauss
  std::vector<OffsetPhase> phases;     // reference hard-iron offset by time
  replay::Recording recording;         // attitude NaN where the capture had none

  bool undisturbed() const { return disturbance == "none"; }
  // Reference offset at time t: the phase that holds t, else the nearest.
  std::array<double, 3> offsetAt(double t) const;
};

// What a sidecar says: the disturbance and, where the recording has truth,
// the undisturbed field and the reference offset by phase.
struct SidecarFacts {
  std::string disturbance;  // "none" when undisturbed
  bool hasTruth = false;
  std::array<double, 3> worldField{};  // capture frame, gauss
  std::vector<OffsetPhase> phases;     // one unbounded phase, or the recording's phases
  bool phased = false;                 // the sidecar lists phases (a magnet comes and goes)
  std::array<double, 3> gyroBiasVsTruth{};  // rad/s, zero where the sidecar has none
};

// Reads NAME.json. False with a message when it cannot be read.
bool readSidecar(const std::string& path, SidecarFacts& out, std::string& problem);

// Reads NAME.csv.gz and NAME.json. False with a message on failure; a
// sidecar without reference calibration (no truth) is reported as such.
bool loadTruthRecording(const std::string& directory, const std::string& name, TruthRecording& out,
                        std::string& problem);

// Every NAME of the directory that has both NAME.csv.gz and NAME.json, sorted.
std::vector<std::string> listRecordings(const std::string& directory);

// Every n-th sample, each the mean of the n samples up to it (the anti-
// aliasing the recordings were made with); the attitude of the last one.
replay::Recording decimate(const replay::Recording& in, int n);

}  // namespace quelta::accuracy
