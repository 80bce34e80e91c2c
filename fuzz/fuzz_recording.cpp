// The replay tool's recording reader, on CSV text: header resolution, field
// splitting, number parsing, unit conversion, every refusal.
// The first byte picks the declared units; the rest is the file.
//
// Checked besides memory safety: a refusal carries a message and a place
// (line 0 only for whole-file problems, a column only with a line); an
// accepted recording has at least one sample, finite and strictly
// increasing times and sensor values that are finite as the floats handed
// to the library.
#include <cmath>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_recording_checks.h"
#include "tools/replay/recording.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const quelta::replay::Units units = quelta::fuzz::unitsFromByte(data[0]);
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  quelta::replay::Recording recording;
  quelta::replay::InputError error;
  const bool accepted = quelta::replay::parseRecording(text, "fuzz.csv", units, recording, error);
  quelta::fuzz::checkReaderResult(accepted, recording, error);
  return 0;
}
