// SPDX-License-Identifier: Apache-2.0
// quelta-faults: the fault matrix on the real recordings, and the soak.
//
//   quelta-faults matrix [DIR]               every fault of the matrix at 100 s on
//                                            every recording with truth (played
//                                            three times over), against the same
//                                            run without the fault
//   quelta-faults soak NAME SAMPLES [FAULT]  SAMPLES sample sets of recording NAME
//                                            played over and over, with and without
//                                            a fault every 400 s (the matrix's
//                                            short faults in turn, and a field
//                                            outage of 1 to 11 s; or the FAULT-th
//                                            fault of the matrix alone)
//   quelta-faults sim [FAULT]                the matrix on the simulated walk (or the
//                                            trace of the FAULT-th fault)
//
// Pass rule: from 60 s after the fault ends (after its start for a lasting
// fault) the heading is within 3 degrees of the no-fault run's and the
// heading accuracy estimate at most 3 times the no-fault run's + 5 degrees;
// from the fault's start on, the heading difference is covered by the
// estimate (at most 2 times it + 2 degrees).
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "quelta/quelta_compass.h"
#include "tools/accuracy/recording_set.h"
#include "tools/faults/fault_injection.h"

namespace {

using quelta::faults::Fault;
using quelta::faults::FaultKind;
using quelta::faults::SampleSet;

// Heap calls made while the soak runs the compass (the library must make none).
long long gHeapCalls = 0;
bool gCounting = false;

std::string kindOf(const std::string& name, const std::string& disturbance) {
  std::string device = name.rfind("broad", 0) == 0 ? "board" : (name.rfind("n5", 0) == 0 ? "phone" : "iPhone");
  return device + (disturbance == "none" ? " undisturbed" : " disturbed");
}

// The recording three times over, the clock running on.
std::vector<SampleSet> streamOf(const quelta::accuracy::TruthRecording& r, int times) {
  std::vector<SampleSet> out;
  const auto& samples = r.recording.samples;
  if (samples.empty()) return out;
  const double period = r.recording.nominalPeriod();
  const double length = samples.back().t - samples.front().t + period;
  out.reserve(samples.size() * static_cast<size_t>(times));
  for (int k = 0; k < times; ++k) {
    for (const auto& s : samples) {
      SampleSet q;
      q.t = s.t + k * length;
      for (int i = 0; i < 3; ++i) {
        q.acc[i] = s.acc[i];
        q.field[i] = s.mag[i];
        q.gyro[i] = s.gyro[i];
      }
      q.hasGyro = r.recording.hasGyro;
      q.truthAzimuthDeg = NAN;
      if (s.hasAttitude)
        for (int i = 0; i < 4; ++i) q.truth[i] = s.attitude[i];
      out.push_back(q);
    }
  }
  return out;
}

int matrix(const std::string& dir) {
  struct Tally {
    int runs = 0, passed = 0;
    double worstDiff = 0.0, worstRatio = 0.0, worstUncovered = 0.0, worstExtra = 0.0;
    int noWorse = 0;  // runs whose error against the truth stays within 3 degrees of the no-fault run's
    std::string worstName;
  };
  std::vector<std::string> kinds;
  std::vector<std::vector<Tally>> tallies;  // kind x fault
  const std::vector<Fault> faults = quelta::faults::faultMatrix(100.0);
  std::printf("%-28s %-36s %8s %8s %8s %8s %6s %s\n", "recording", "fault", "diff", "acc/lim", "uncov", "extra", "refus",
              "verdict");
  for (const std::string& name : quelta::accuracy::listRecordings(dir)) {
    quelta::accuracy::TruthRecording r;
    std::string problem;
    if (!quelta::accuracy::loadTruthRecording(dir, name, r, problem)) continue;
    const std::vector<SampleSet> stream = streamOf(r, 3);
    const double length = stream.size() / 3 * r.recording.nominalPeriod();
    const std::array<double, 3> off = r.offsetAt(0.0);
    quelta::faults::RunOptions options;
    options.referenceOffset = off.data();
    const quelta::faults::Trace clean = quelta::faults::run(stream, Fault{}, options);
    const std::string kind = kindOf(name, r.disturbance);
    long long leftOut[3] = {0, 0, 0};
    for (uint32_t fl : clean.flags) {
      if (fl & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) ++leftOut[0];
      if (fl & QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT) ++leftOut[1];
      if (fl & QUELTA_COMPASS_FLAG_TIME_RESTART) ++leftOut[2];
    }
    std::printf("%-28s no-fault run: %.0f s played 3 times, %zu sample sets, gyroscope left out in %lld, field in %lld, time restarts %lld\n",
                name.c_str(), length, clean.t.size(), leftOut[0], leftOut[1], leftOut[2]);
    auto it = std::find(kinds.begin(), kinds.end(), kind);
    if (it == kinds.end()) {
      kinds.push_back(kind);
      tallies.emplace_back(faults.size());
      it = kinds.end() - 1;
    }
    std::vector<Tally>& row = tallies[static_cast<size_t>(it - kinds.begin())];
    for (size_t f = 0; f < faults.size(); ++f) {
      // FAULTS_ONLY=3,8: only those faults of the matrix.
      const char* only = std::getenv("FAULTS_ONLY");
      if (only != nullptr && std::string(",") .append(only).append(",").find("," + std::to_string(f) + ",") == std::string::npos)
        continue;
      const quelta::faults::Trace faulty = quelta::faults::run(stream, faults[f], options);
      const quelta::faults::Verdict v = quelta::faults::judge(clean, faulty, faults[f], 60.0, length, &stream);
      std::printf("%-28s %-36s %8.2f %8.2f %8.2f %8.2f %6lld %s\n", name.c_str(), faults[f].name, v.worstHeadingDiffDeg,
                  v.worstAccuracyRatio, v.worstUncovered, v.worstExtraErrorDeg, static_cast<long long>(v.refused),
                  v.passes() ? "pass" : (v.evaluated ? "FAIL" : "short"));
      Tally& t = row[f];
      ++t.runs;
      t.passed += v.passes() ? 1 : 0;
      if (v.worstHeadingDiffDeg >= t.worstDiff) t.worstName = name;
      t.worstDiff = std::fmax(t.worstDiff, v.worstHeadingDiffDeg);
      t.worstRatio = std::fmax(t.worstRatio, v.worstAccuracyRatio);
      t.worstUncovered = std::fmax(t.worstUncovered, v.worstUncovered);
      if (std::isfinite(v.worstExtraErrorDeg)) {
        t.worstExtra = std::fmax(t.worstExtra, v.worstExtraErrorDeg);
        if (v.worstExtraErrorDeg <= 3.0) ++t.noWorse;
      }
    }
    std::fflush(stdout);
  }
  std::printf("\nper kind: passed/runs, worst heading difference (deg), worst accuracy ratio, worst uncovered;\n"
              "no worse against the truth than the no-fault run (within 3 deg)/runs, worst extra error (deg)\n");
  for (size_t k = 0; k < kinds.size(); ++k) {
    std::printf("== %s\n", kinds[k].c_str());
    for (size_t f = 0; f < faults.size(); ++f) {
      const auto& t = tallies[k][f];
      std::printf("   %-36s %2d/%-2d %8.2f %6.2f %6.2f   %2d/%-2d %7.2f  (%s)\n", faults[f].name, t.passed, t.runs,
                  t.worstDiff, t.worstRatio, t.worstUncovered, t.noWorse, t.runs, t.worstExtra, t.worstName.c_str());
    }
  }
  return 0;
}

// One fault's run beside the no-fault run, every 0.2 s from its start on.
// With the stream, also each run's heading error against the truth (north
// aligned by the no-fault run's median offset after 30 s).
void printTrace(const quelta::faults::Trace& clean, const quelta::faults::Trace& faulty, const Fault& f,
                const std::vector<SampleSet>* stream = nullptr) {
  double align = NAN;
  if (stream != nullptr) {
    std::vector<double> offsets;
    for (size_t i = 0; i < clean.t.size(); ++i)
      if (std::isfinite((*stream)[i].truth[0]) && clean.t[i] > 30.0)
        offsets.push_back(quelta::faults::headingDiffDeg(&clean.quaternion[4 * i], (*stream)[i].truth));
    if (!offsets.empty()) {
      std::nth_element(offsets.begin(), offsets.begin() + offsets.size() / 2, offsets.end());
      align = offsets[offsets.size() / 2];
    }
  }
  const auto errorOf = [&](const quelta::faults::Trace& tr, size_t i) {
    if (!std::isfinite(align) || !std::isfinite((*stream)[i].truth[0])) return static_cast<double>(NAN);
    return quelta::faults::angleDiffDeg(quelta::faults::headingDiffDeg(&tr.quaternion[4 * i], (*stream)[i].truth), align);
  };
  // The tilt error: the angle between the estimate's and the truth's up, seen from the device.
  const auto tiltOf = [&](const quelta::faults::Trace& tr, size_t i) {
    if (stream == nullptr || !std::isfinite((*stream)[i].truth[0])) return static_cast<double>(NAN);
    const auto upInDevice = [](const double* q, double* u) {  // third row of the device-to-world matrix
      u[0] = 2.0 * (q[1] * q[3] - q[0] * q[2]);
      u[1] = 2.0 * (q[2] * q[3] + q[0] * q[1]);
      u[2] = 1.0 - 2.0 * (q[1] * q[1] + q[2] * q[2]);
    };
    double a[3], b[3];
    upInDevice(&tr.quaternion[4 * i], a);
    upInDevice((*stream)[i].truth, b);
    const double c = std::fmax(-1.0, std::fmin(1.0, a[0] * b[0] + a[1] * b[1] + a[2] * b[2]));
    return std::acos(c) * 57.29577951308232;
  };
  std::printf("     t   clean   fault    diff  acc.clean  acc.fault  level  flags  offset.clean  offset.fault  err.clean  err.fault  tilt.clean  tilt.fault\n");
  const size_t step = std::getenv("FAULTS_EVERY") ? static_cast<size_t>(std::atoi(std::getenv("FAULTS_EVERY"))) : 10;
  for (size_t i = 0; i < clean.t.size(); i += step) {
    if (clean.t[i] < f.start - 1.0) continue;
    std::printf("%6.1f %7.2f %7.2f %7.2f %9.2f %10.2f %6d  0x%03x %13.4f %13.4f %10.2f %10.2f %11.2f %11.2f\n", clean.t[i], clean.azimuthDeg[i],
                faulty.azimuthDeg[i], quelta::faults::headingDiffDeg(&faulty.quaternion[4 * i], &clean.quaternion[4 * i]),
                clean.headingAccuracyDeg[i], faulty.headingAccuracyDeg[i], faulty.accuracy[i], faulty.flags[i],
                clean.offsetGauss[i], faulty.offsetGauss[i], errorOf(clean, i), errorOf(faulty, i),
                tiltOf(clean, i), tiltOf(faulty, i));
  }
}

int sim(int traced) {
  double offset[3];
  const std::vector<SampleSet> stream = quelta::faults::simulatedWalk(185.0, 7, offset);
  quelta::faults::RunOptions options;
  options.referenceOffset = offset;
  const quelta::faults::Trace clean = quelta::faults::run(stream, Fault{}, options);
  const std::vector<Fault> matrix = quelta::faults::faultMatrix(40.0);
  if (traced >= 0 && traced < static_cast<int>(matrix.size())) {
    printTrace(clean, quelta::faults::run(stream, matrix[static_cast<size_t>(traced)], options),
               matrix[static_cast<size_t>(traced)]);
    return 0;
  }
  for (const Fault& f : matrix) {
    const quelta::faults::Trace faulty = quelta::faults::run(stream, f, options);
    const quelta::faults::Verdict v = quelta::faults::judge(clean, faulty, f, 20.0);
    std::printf("%-36s diff %7.2f  acc/lim %5.2f  uncovered %5.2f  refused %lld  %s\n", f.name, v.worstHeadingDiffDeg,
                v.worstAccuracyRatio, v.worstUncovered, static_cast<long long>(v.refused), v.passes() ? "pass" : "FAIL");
  }
  double worst = 0.0;
  for (size_t i = 1500; i < stream.size(); ++i)
    worst = std::fmax(worst, std::fabs(quelta::faults::angleDiffDeg(clean.azimuthDeg[i], stream[i].truthAzimuthDeg)));
  long long leftOut[2] = {0, 0};
  for (uint32_t f : clean.flags) {
    if (f & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) ++leftOut[0];
    if (f & QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT) ++leftOut[1];
  }
  std::printf("no-fault run: worst heading error after 30 s %.2f deg, offset error at the end %.4f gauss, "
              "gyroscope left out %lld, field left out %lld sample sets\n",
              worst, clean.offsetGauss.back(), leftOut[0], leftOut[1]);
  return 0;
}

struct SoakFigures {
  std::vector<double> microsPerSample;  // per chunk
  std::vector<double> shareAccuracy3;   // per chunk
  std::vector<double> offsetError;      // gauss, at the end of each chunk
  std::vector<double> gyroLeftOut;      // share of the chunk's sample sets
  std::vector<double> fieldLeftOut;
  std::vector<double> calibrating;
  long long heapCalls = 0;
  long long heapBytesGrown = 0;
  long long refused = 0;
};

SoakFigures soakRun(const std::vector<SampleSet>& recording, double length, const double* reference, long long total,
                    bool withFaults, int only) {
  static quelta_compass compass;
  quelta_compass_init(&compass);
  const std::vector<Fault> matrix = quelta::faults::faultMatrix(0.0);
  std::vector<Fault> shortFaults;
  for (size_t i = 0; i < matrix.size(); ++i)
    if (!matrix[i].lasting() && (only < 0 || static_cast<int>(i) == only)) shortFaults.push_back(matrix[i]);
  if (shortFaults.empty()) shortFaults.push_back(Fault{});  // a lasting fault is no soak fault
  const long long chunk = 1000000;
  SoakFigures figures;
  const size_t chunks = static_cast<size_t>(total / chunk + 1);
  figures.microsPerSample.reserve(chunks);
  figures.shareAccuracy3.reserve(chunks);
  figures.offsetError.reserve(chunks);
  figures.gyroLeftOut.reserve(chunks);
  figures.fieldLeftOut.reserve(chunks);
  figures.calibrating.reserve(chunks);
  long long gyroOut = 0, fieldOut = 0, calibratingCount = 0;
  const struct mallinfo2 before = mallinfo2();
  gHeapCalls = 0;
  gCounting = true;
  long long done = 0;
  int round = 0;
  double sumMicros = 0.0;
  long long acc3 = 0;
  quelta_compass_output out;
  unsigned faultIndex = 0;
  quelta::faults::Injector injector(Fault{}, reference);
  quelta::faults::Injector outage(Fault{}, reference);
  const double faultEvery = 400.0;  // s
  double nextFault = 200.0;
  uint64_t seed = 1;
  auto start = std::chrono::steady_clock::now();
  long long inChunk = 0;
  while (done < total) {
    const double shift = round * length;
    for (size_t i = 0; i < recording.size() && done < total; ++i, ++done) {
      SampleSet s = recording[i];
      s.t += shift;
      if (withFaults) {
        if (s.t >= nextFault) {
          Fault f = shortFaults[faultIndex++ % shortFaults.size()];
          f.start = s.t;
          injector = quelta::faults::Injector(f, reference);
          seed = seed * 6364136223846793005ull + 1442695040888963407ull;
          Fault o{FaultKind::FieldOutage, s.t + 150.0, 1.0 + static_cast<double>((seed >> 33) % 11), 0.0, "outage"};
          if (only >= 0) o.kind = FaultKind::None;
          outage = quelta::faults::Injector(o, reference);
          nextFault += faultEvery;
        }
        s = outage.apply(injector.apply(s));
      }
      const int32_t rc = quelta_compass_update(&compass, s.t, s.acc, s.hasField ? s.field : nullptr,
                                               s.hasGyro ? s.gyro : nullptr);
      if (rc != 0) ++figures.refused;
      quelta_compass_get_output(&compass, &out);
      if (out.accuracy == 3) ++acc3;
      if (out.flags & QUELTA_COMPASS_FLAG_GYROSCOPE_LEFT_OUT) ++gyroOut;
      if (out.flags & QUELTA_COMPASS_FLAG_FIELD_LEFT_OUT) ++fieldOut;
      if (out.flags & QUELTA_COMPASS_FLAG_CALIBRATING) ++calibratingCount;
      if (++inChunk == chunk || done + 1 == total) {
        const auto end = std::chrono::steady_clock::now();
        sumMicros = std::chrono::duration<double, std::micro>(end - start).count();
        figures.microsPerSample.push_back(sumMicros / static_cast<double>(inChunk));
        figures.shareAccuracy3.push_back(static_cast<double>(acc3) / static_cast<double>(inChunk));
        figures.gyroLeftOut.push_back(static_cast<double>(gyroOut) / static_cast<double>(inChunk));
        figures.fieldLeftOut.push_back(static_cast<double>(fieldOut) / static_cast<double>(inChunk));
        figures.calibrating.push_back(static_cast<double>(calibratingCount) / static_cast<double>(inChunk));
        gyroOut = fieldOut = calibratingCount = 0;
        quelta_mag_calibration cal;
        quelta_compass_get_calibration(&compass, &cal);
        figures.offsetError.push_back(std::sqrt((cal.offset[0] - reference[0]) * (cal.offset[0] - reference[0]) +
                                                (cal.offset[1] - reference[1]) * (cal.offset[1] - reference[1]) +
                                                (cal.offset[2] - reference[2]) * (cal.offset[2] - reference[2])));
        sumMicros = 0.0;
        acc3 = 0;
        inChunk = 0;
        start = std::chrono::steady_clock::now();
      }
    }
    ++round;
  }
  gCounting = false;
  figures.heapCalls = gHeapCalls;
  const struct mallinfo2 after = mallinfo2();
  figures.heapBytesGrown = static_cast<long long>(after.uordblks) - static_cast<long long>(before.uordblks);
  return figures;
}

int traceOne(const std::string& dir, const std::string& name, int index) {
  quelta::accuracy::TruthRecording r;
  std::string problem;
  if (!quelta::accuracy::loadTruthRecording(dir, name, r, problem)) return 2;
  const std::vector<SampleSet> stream = streamOf(r, 3);
  const std::array<double, 3> off = r.offsetAt(0.0);
  quelta::faults::RunOptions options;
  options.referenceOffset = off.data();
  const std::vector<Fault> matrix = quelta::faults::faultMatrix(100.0);
  const Fault& f = matrix.at(static_cast<size_t>(index));
  printTrace(quelta::faults::run(stream, Fault{}, options), quelta::faults::run(stream, f, options), f, &stream);
  return 0;
}

int soak(const std::string& dir, const std::string& name, long long total, int only) {
  quelta::accuracy::TruthRecording r;
  std::string problem;
  if (!quelta::accuracy::loadTruthRecording(dir, name, r, problem)) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), problem.c_str());
    return 2;
  }
  const std::vector<SampleSet> once = streamOf(r, 1);
  const double period = r.recording.nominalPeriod();
  const double length = once.back().t - once.front().t + period;
  const std::array<double, 3> off = r.offsetAt(0.0);
  for (int withFaults = 0; withFaults < 2; ++withFaults) {
    if (only >= 0 && withFaults == 0) continue;
    const SoakFigures f = soakRun(once, length, off.data(), total, withFaults != 0, only);
    std::printf("%s, %lld sample sets, %s: refused %lld, heap calls %lld, heap grown %lld bytes\n", name.c_str(), total,
                withFaults ? "with faults" : "without faults", f.refused, f.heapCalls, f.heapBytesGrown);
    std::printf("  chunk   us/sample  accuracy3  offset error (gauss)  gyro out  field out  calibrating\n");
    for (size_t i = 0; i < f.microsPerSample.size(); ++i)
      std::printf("  %5zu   %9.3f  %9.3f  %9.4f             %8.3f  %9.3f  %11.3f\n", i, f.microsPerSample[i],
                  f.shareAccuracy3[i], f.offsetError[i], f.gyroLeftOut[i], f.fieldLeftOut[i], f.calibrating[i]);
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace

// Counts the heap calls while the soak runs.
void* operator new(std::size_t size) {
  if (gCounting) ++gHeapCalls;
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "matrix") return matrix(argc > 2 ? argv[2] : QUELTA_DEFAULT_RECORDINGS);
  if (mode == "trace" && argc > 3) return traceOne(QUELTA_DEFAULT_RECORDINGS, argv[2], std::atoi(argv[3]));
  if (mode == "sim") return sim(argc > 2 ? std::atoi(argv[2]) : -1);
  if (mode == "soak" && argc > 3)
    return soak(QUELTA_DEFAULT_RECORDINGS, argv[2], std::atoll(argv[3]), argc > 4 ? std::atoi(argv[4]) : -1);
  std::fprintf(stderr, "usage: quelta-faults matrix [DIR] | soak NAME SAMPLES [FAULT] | sim [FAULT] | trace NAME FAULT\n");
  return 2;
}
