// SPDX-License-Identifier: Apache-2.0
// quelta-make-recording: writes a simulated hand-held recording (CSV) with
// known truth. The bundled data/handheld.csv is made by
//   quelta-make-recording --declination 3.5 --out data/handheld.csv
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/recording_sim/handheld_motion.h"

namespace {

const char* const kUsage =
    "usage: quelta-make-recording [options]\n"
    "  --out FILE             write here instead of standard output\n"
    "  --duration S           seconds of the script to record (default 60)\n"
    "  --rate HZ              samples per second (default 50)\n"
    "  --seed N               noise seed (default 12345)\n"
    "  --offset X,Y,Z         hard-iron offset, gauss (default 0.12,-0.25,0.08)\n"
    "  --declination DEG      magnetic north east of the reference north (default 0)\n"
    "  --no-reference         leave out the reference gyroscope and attitude\n"
    "  --acc-unit g|m/s2      accelerometer unit (default g)\n"
    "  --mag-unit gauss|uT    magnetometer unit (default gauss)\n";

bool parseDouble(const char* text, double& value) {
  char* end = nullptr;
  value = std::strtod(text, &end);
  return *text != '\0' && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
  quelta::sim::RecordingPlan plan;
  std::string out;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    bool ok = true;
    if (arg == "--no-reference") {
      plan.withReference = false;
      continue;
    }
    if (arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (value == nullptr) {
      std::fprintf(stderr, "quelta-make-recording: bad option %s\n%s", arg.c_str(), kUsage);
      return 2;
    }
    ++i;
    double seed = 0.0;
    if (arg == "--out") {
      out = value;
    } else if (arg == "--duration") {
      ok = parseDouble(value, plan.durationSeconds) && plan.durationSeconds > 0.0;
    } else if (arg == "--rate") {
      ok = parseDouble(value, plan.rateHz) && plan.rateHz > 0.0;
    } else if (arg == "--seed") {
      ok = parseDouble(value, seed) && seed >= 0.0;
      plan.seed = static_cast<uint64_t>(seed);
    } else if (arg == "--offset") {
      char tail = 0;
      ok = std::sscanf(value, "%lf,%lf,%lf%c", &plan.hardIron.x, &plan.hardIron.y, &plan.hardIron.z, &tail) == 3;
    } else if (arg == "--declination") {
      ok = parseDouble(value, plan.declinationDeg);
    } else if (arg == "--acc-unit") {
      ok = (std::strcmp(value, "g") == 0 || std::strcmp(value, "m/s2") == 0);
      plan.accInMetresPerSecond2 = std::strcmp(value, "m/s2") == 0;
    } else if (arg == "--mag-unit") {
      ok = std::strcmp(value, "gauss") == 0 || std::strcmp(value, "uT") == 0;
      plan.magInMicrotesla = std::strcmp(value, "uT") == 0;
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "quelta-make-recording: bad option %s %s\n%s", arg.c_str(), value, kUsage);
      return 2;
    }
  }

  const std::string csv = quelta::sim::simulateHandheldRecording(plan);
  FILE* file = out.empty() ? stdout : std::fopen(out.c_str(), "w");
  if (file == nullptr) {
    std::fprintf(stderr, "quelta-make-recording: cannot write %s\n", out.c_str());
    return 1;
  }
  const bool written = std::fwrite(csv.data(), 1, csv.size(), file) == csv.size();
  if ((file != stdout && std::fclose(file) != 0) || !written) {
    std::fprintf(stderr, "quelta-make-recording: write failed\n");
    return 1;
  }
  return 0;
}
