// SPDX-License-Identifier: Apache-2.0
// The replay tool's recording reader on gzip-compressed recordings: the
// inflating source under the streaming reader. Input: a units byte
// (fuzz_recording_checks.h), a mode byte, a parameter byte, then the payload:
//   mode 0  the payload is the file, as it is (a gzip file or anything else)
//   mode 1  the payload is CSV text, compressed here (level from the parameter)
//   mode 2  as 1, then cut short (the parameter picks where)
//   mode 3  as 1, in two gzip members one after the other (split where the
//           parameter says)
//   mode 4  as 1, with one byte of the compressed file changed
//
// Checked besides memory safety: everything fuzz_recording checks of a
// reading; a whole compressed file (modes 1 and 3) reads exactly as its
// text does, samples and errors alike.
#include <zlib.h>

#include <cstdint>
#include <string>

#include "fuzz/fuzz_recording_checks.h"

namespace {

std::string gzipped(const std::string& text, int level) {
  z_stream z{};
  // A small window and little memory: a valid gzip stream all the same, and
  // cheap to set up on every execution.
  FUZZ_CHECK(deflateInit2(&z, level, Z_DEFLATED, 9 + 16, 1, Z_DEFAULT_STRATEGY) == Z_OK);
  std::string out(deflateBound(&z, static_cast<uLong>(text.size())) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  z.avail_in = static_cast<uInt>(text.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  FUZZ_CHECK(deflate(&z, Z_FINISH) == Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const quelta::replay::Units units = quelta::fuzz::unitsFromByte(data[0]);
  const int mode = data[1] % 5;
  const size_t parameter = data[2];
  const std::string payload(reinterpret_cast<const char*>(data + 3), size - 3);
  const int level = static_cast<int>(parameter % 10);

  std::string file;
  bool whole = false;
  switch (mode) {
    case 0: file = payload; break;
    case 1:
      file = gzipped(payload, level);
      whole = true;
      break;
    case 2:
      file = gzipped(payload, level);
      file.resize(file.size() * parameter / 256);
      break;
    case 3: {
      const size_t split = payload.size() * parameter / 256;
      file = gzipped(payload.substr(0, split), 6) + gzipped(payload.substr(split), 6);
      whole = true;
      break;
    }
    default: {
      file = gzipped(payload, level);
      file[file.size() * parameter / 256] ^= 0x5a;
      break;
    }
  }
  const quelta::fuzz::Reading compressed = quelta::fuzz::readAll(file, units, parameter % 40);
  if (whole && !quelta::fuzz::startsLikeGzip(payload)) {
    const quelta::fuzz::Reading plain = quelta::fuzz::readAll(payload, units, 0);
    FUZZ_CHECK(quelta::fuzz::sameReading(compressed, plain));
  }
  return 0;
}
