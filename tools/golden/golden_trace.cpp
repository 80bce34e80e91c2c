// SPDX-License-Identifier: Apache-2.0
// Golden trace: runs fixed scenarios through every exported entry point of
// QueltaAlgo.so and prints every output float as its exact bit pattern, with
// every log line the library hands to its callback. Builds on different
// compilers and targets must print the same bytes; the committed trace
// (tests/golden/expected_trace.txt) is the reference.
//
// The inputs are made with float and integer arithmetic only (no libm, no
// platform-dependent conversions), so they are the same bits everywhere:
// attitudes advance by rational unit quaternions, renormalised with a
// Newton step, and noise comes from an integer generator.
//
// Usage: golden_trace [output-file]   (stdout without an argument)

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "QueltaAlgo.h"

namespace {

FILE* out = stdout;

// ---------------------------------------------------------------- printing

uint32_t bitsOf(float v) {
  uint32_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// The sign and payload of a NaN are not portable (x86-64 makes negative
// default NaNs, arm64 positive ones), so every NaN prints as one token.
void putFloat(float v) {
  if (v != v) {
    std::fputs(" nan", out);
  } else {
    std::fprintf(out, " %08x", static_cast<unsigned>(bitsOf(v)));
  }
}

void putFloats(const char* label, const float* v, int n) {
  std::fprintf(out, " %s", label);
  for (int i = 0; i < n; ++i) putFloat(v[i]);
}

void putInt(const char* label, long long v) { std::fprintf(out, " %s %lld", label, v); }

void endLine() { std::fputc('\n', out); }

void section(const char* name) { std::fprintf(out, "== %s\n", name); }

// Log lines are printed escaped on one trace line, so a missing or doubled
// line end shows. "-nan" is folded into "nan" for the reason given above.
int traceLog(const char* fmt, ...) {
  char text[1024];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  std::fputs("  log \"", out);
  for (const char* p = text; *p != '\0'; ++p) {
    if (p[0] == '-' && std::strncmp(p + 1, "nan", 3) == 0) continue;
    if (*p == '\n') {
      std::fputs("\\n", out);
    } else if (*p == '"' || *p == '\\') {
      std::fputc('\\', out);
      std::fputc(*p, out);
    } else {
      std::fputc(*p, out);
    }
  }
  std::fputs("\"\n", out);
  return 0;
}

// ------------------------------------------------------- input generation

// Quaternion w, x, y, z rotating device coordinates into east-north-up.
struct Quat {
  float w, x, y, z;
};

Quat multiply(const Quat& p, const Quat& q) {
  return {((p.w * q.w - p.x * q.x) - p.y * q.y) - p.z * q.z,
          ((p.w * q.x + p.x * q.w) + p.y * q.z) - p.z * q.y,
          ((p.w * q.y - p.x * q.z) + p.y * q.w) + p.z * q.x,
          ((p.w * q.z + p.x * q.y) - p.y * q.x) + p.z * q.w};
}

// One Newton step towards unit length: q (3 - |q|^2) / 2.
Quat renormalise(const Quat& q) {
  const float n2 = ((q.w * q.w + q.x * q.x) + q.y * q.y) + q.z * q.z;
  const float k = (3.0f - n2) * 0.5f;
  return {q.w * k, q.x * k, q.y * k, q.z * k};
}

// Unit quaternion about the unit axis (ax, ay, az) whose half angle has the
// rational cosine (1 - t^2) / (1 + t^2) and sine 2t / (1 + t^2): the angle is
// 4 atan(t), about 229 t degrees for small t.
Quat step(float t, float ax, float ay, float az) {
  const float d = 1.0f + t * t;
  const float c = (1.0f - t * t) / d;
  const float s = (t + t) / d;
  return {c, s * ax, s * ay, s * az};
}

const Quat kIdentity{1.0f, 0.0f, 0.0f, 0.0f};

// v in device coordinates for a vector e given in east-north-up: R^T e.
void toDevice(const Quat& q, const float* e, float* v) {
  const float xx = q.x * q.x, yy = q.y * q.y, zz = q.z * q.z;
  const float xy = q.x * q.y, xz = q.x * q.z, yz = q.y * q.z;
  const float wx = q.w * q.x, wy = q.w * q.y, wz = q.w * q.z;
  const float r00 = 1.0f - 2.0f * (yy + zz), r01 = 2.0f * (xy - wz), r02 = 2.0f * (xz + wy);
  const float r10 = 2.0f * (xy + wz), r11 = 1.0f - 2.0f * (xx + zz), r12 = 2.0f * (yz - wx);
  const float r20 = 2.0f * (xz - wy), r21 = 2.0f * (yz + wx), r22 = 1.0f - 2.0f * (xx + yy);
  v[0] = (r00 * e[0] + r10 * e[1]) + r20 * e[2];
  v[1] = (r01 * e[0] + r11 * e[1]) + r21 * e[2];
  v[2] = (r02 * e[0] + r12 * e[1]) + r22 * e[2];
}

// Integer generator (numerical-recipes LCG) giving noise in [-1, 1) in
// steps of 2^-23.
struct Noise {
  uint32_t state;
  float next() {
    state = state * 1664525u + 1013904223u;
    const int32_t centred = static_cast<int32_t>(state >> 8) - (1 << 23);
    return static_cast<float>(centred) * (1.0f / 8388608.0f);
  }
};

// A hand-held device: attitude, Earth field, hard-iron offset, noise.
struct Device {
  Quat attitude = kIdentity;
  float field[3] = {0.0f, 0.25f, -0.4330127f};  // 0.5 gauss, dipping 60 degrees
  float hardIron[3] = {0.12f, -0.25f, 0.08f};
  float magNoise = 0.002f;
  float accNoise = 0.0f;
  float linearAcc[3] = {0.0f, 0.0f, 0.0f};  // device coordinates, g
  Noise noise{20240607u};

  void turnWorld(const Quat& d) { attitude = renormalise(multiply(d, attitude)); }
  void turnBody(const Quat& d) { attitude = renormalise(multiply(attitude, d)); }

  void read(float* acc, float* mag) {
    static const float up[3] = {0.0f, 0.0f, 1.0f};
    float a[3], m[3];
    toDevice(attitude, up, a);
    toDevice(attitude, field, m);
    for (int i = 0; i < 3; ++i) {
      acc[i] = (a[i] + linearAcc[i]) + accNoise * noise.next();
      mag[i] = (m[i] + hardIron[i]) + magNoise * noise.next();
    }
  }
};

// ------------------------------------------------- calibration, orientation

const float kAxis[9] = {1.0f, 0.0625f, 0.0f, -0.0625f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
const float kNoInit[4] = {0.0f, 0.0f, 0.0f, 0.0f};
const float kPool[8] = {6.0f, 16.0f, 32.0f, 0.1f, 0.1f, 0.85f, 1.15f, 1.4f};
const float kThd[3] = {0.1f, 2e-5f, 2e-4f};
const int32_t kParaC[3] = {20, 11, 8};

void initial(const float* axis, const float* init, const float* pool, const float* thd,
             const int32_t* paraC, LogCallback cb) {
  const int32_t r = AlgoInitial(axis, init, pool, thd, paraC, cb);
  std::fputs("initial", out);
  putFloats("init", init, 4);
  putFloats("pool", pool, 8);
  std::fprintf(out, " paraC %d %d %d cb %d", paraC[0], paraC[1], paraC[2], cb ? 1 : 0);
  putInt("ret", r);
  endLine();
}

int calSample = 0;
int lastAccuracy = -1;

// One sample set through the calibration and every accessor, in the
// documented calling order. Long runs print only some samples (their log
// lines too); a sample that changes the accuracy or raises a flag is always
// reported.
int32_t calStep(const float* acc, const float* mag, const float* sat, int32_t restart, int32_t mode,
                bool print = true) {
  float cal[3], raw[3], off[3], ori[3], para[7];
  if (print) {
    std::fprintf(out, "cal %d rs %d mode %d", calSample, restart, mode);
    putFloats("acc", acc, 3);
    putFloats("mag", mag, 3);
    if (sat != mag) putFloats("sat", sat, 3);
    endLine();
  }
  LogCallback saved = log_func;
  if (!print) RegisterLogCallback(nullptr);
  const int32_t r = MainAlgorithmProcess(acc, mag, sat, restart, mode);
  const int32_t n = GetCalMag(cal);
  GetRawMag(raw);
  const int32_t ro = GetOffset(off);
  const int32_t ri = GetCalOri(ori);
  const int32_t accuracy = GetMagAccuracy();
  std::memset(para, 0, sizeof para);
  const int32_t rp = GetCalPara(para);
  const int32_t saturated = GetMagSaturation();
  RegisterLogCallback(saved);
  if (print || rp != 0 || saturated != 0 || accuracy != lastAccuracy) {
    if (!print) std::fprintf(out, "cal %d (inputs not shown)\n", calSample);
    std::fprintf(out, " ret %d pool %d off %d ori %d accu %d para %d sat %d", r, n, ro, ri, accuracy, rp,
                 saturated);
    putFloats("cal", cal, 3);
    putFloats("raw", raw, 3);
    putFloats("off", off, 3);
    putFloats("ori", ori, 3);
    putFloats("para", para, 7);
    endLine();
  }
  lastAccuracy = accuracy;
  ++calSample;
  return n;
}

// Returns the pool count reported by GetCalMag.
int32_t calRead(Device& dev, int32_t restart, int32_t mode, bool print = true) {
  float acc[3], mag[3];
  dev.read(acc, mag);
  return calStep(acc, mag, mag, restart, mode, print);
}

// A sample thrown 3 gauss off along x: farther than the maximum distance
// from every pooled sample.
int32_t calReadFarOff(Device& dev) {
  float acc[3], mag[3];
  dev.read(acc, mag);
  mag[0] = mag[0] + 3.0f;
  return calStep(acc, mag, mag, 0, 0);
}

// Log modes cycle through trace+detail, trace, silent, and negative.
int32_t cycleMode(int i) {
  static const int32_t modes[4] = {1, 0, 2, -1};
  return modes[(i / 40) % 4];
}

void calibrationScenario() {
  section("calibration: load-time state");
  {
    float off[3], para[7];
    std::memset(para, 0, sizeof para);
    const int32_t ro = GetOffset(off);
    const int32_t rp = GetCalPara(para);
    std::fprintf(out, "accu %d sat %d", GetMagAccuracy(), GetMagSaturation());
    putInt("off", ro);
    putFloats("", off, 3);
    putInt("para", rp);
    putFloats("", para, 7);
    endLine();
  }

  section("calibration: set-up with a callback");
  initial(kAxis, kNoInit, kPool, kThd, kParaC, traceLog);

  Device dev;
  const Quat spin = step(0.03125f, 0.0f, 0.0f, 1.0f);         // about 7 degrees, device z
  const Quat tumble = step(0.0078125f, 0.6f, 0.8f, 0.0f);     // about 1.8 degrees, world
  const Quat wobble = step(0.015625f, 0.0f, 0.6f, 0.8f);      // about 3.6 degrees, device
  section("calibration: tumbling to accuracy 3, restart at sample 45");
  for (int i = 0; i < 700; ++i) {
    dev.turnBody(spin);
    dev.turnWorld(tumble);
    if (i % 3 == 0) dev.turnBody(wobble);
    calRead(dev, i == 45 ? 1 : (i == 50 ? 2 : 0), cycleMode(i), i < 240 || i % 4 == 0);
  }

  section("orientation: held still, then headings across North at several tilts");
  dev.attitude = kIdentity;
  dev.magNoise = 0.0f;
  for (int i = 0; i < 40; ++i) calRead(dev, 0, 0);
  const Quat yaw = step(0.0078125f, 0.0f, 0.0f, 1.0f);
  const Quat tilts[4] = {kIdentity, step(0.0625f, 1.0f, 0.0f, 0.0f), step(0.09375f, 0.0f, 1.0f, 0.0f),
                         step(0.5f, 0.6f, 0.0f, 0.8f)};
  for (int t = 0; t < 4; ++t) {
    Quat heading = step(0.125f, 0.0f, 0.0f, 1.0f);  // start about 28 degrees east of North
    for (int i = 0; i < 260; ++i) {
      heading = renormalise(multiply(heading, t % 2 == 0 ? yaw : Quat{yaw.w, 0.0f, 0.0f, -yaw.z}));
      dev.attitude = renormalise(multiply(heading, tilts[t]));
      calRead(dev, 0, t == 1 ? 1 : 0, i < 40 || i % 3 == 0);
    }
  }
  section("orientation: screen down, pitch past 90 degrees");
  dev.attitude = step(0.5f, 1.0f, 0.0f, 0.0f);
  const Quat pitchDown = step(0.015625f, 1.0f, 0.0f, 0.0f);
  for (int i = 0; i < 60; ++i) {
    dev.turnBody(pitchDown);
    calRead(dev, 0, 0);
  }

  section("calibration: refit at accuracy 3 after the offset moves");
  dev.magNoise = 0.002f;
  dev.hardIron[0] = 0.15f;
  dev.hardIron[2] = 0.05f;
  for (int i = 0; i < 500; ++i) {
    dev.turnBody(spin);
    dev.turnWorld(tumble);
    if (i % 3 == 0) dev.turnBody(wobble);
    calRead(dev, 0, i < 100 ? 0 : 2, i < 100 || i % 4 == 0);
  }

  section("calibration: shaking with a frozen probe axis (saturation)");
  for (int i = 0; i < 60; ++i) {
    float acc[3], mag[3], sat[3];
    dev.read(acc, mag);
    acc[0] = (i % 2 == 0) ? 0.7f : -0.7f;
    sat[0] = mag[0];
    sat[1] = mag[1];
    sat[2] = 0.3f;
    calStep(acc, mag, sat, 0, 0);
  }

  section("calibration: field four times too strong (refits rejected, quality downgrade)");
  for (int k = 0; k < 3; ++k) dev.field[k] *= 4.0f;
  for (int i = 0; i < 300; ++i) {
    dev.turnBody(spin);
    dev.turnWorld(tumble);
    calRead(dev, 0, i % 2, i % 5 == 0 || (i > 240 && i < 260));
  }
  for (int k = 0; k < 3; ++k) dev.field[k] *= 0.25f;

  section("calibration: stored calibration, other windows and sample rate");
  {
    const float init[4] = {0.12f, -0.25f, 0.08f, 0.5f};
    const float pool[8] = {6.9f, 16.0f, 40.0f, 0.12f, 0.08f, 0.85f, 1.15f, 1.4f};
    const int32_t paraC[3] = {30, 5, 3};
    initial(kAxis, init, pool, kThd, paraC, traceLog);
  }
  dev.hardIron[0] = 0.12f;
  for (int i = 0; i < 120; ++i) {
    dev.turnBody(spin);
    dev.turnWorld(tumble);
    calRead(dev, 0, 0);
  }
  section("calibration: pool edge paths (far samples early and late, rejected full fit)");
  initial(kAxis, kNoInit, kPool, kThd, kParaC, traceLog);
  {
    int32_t pool = calRead(dev, 1, 0);
    for (int i = 0; i < 40 && pool < 3; ++i) {
      dev.turnBody(spin);
      dev.turnWorld(tumble);
      pool = calRead(dev, 0, 0);
    }
    calReadFarOff(dev);  // early phase: restarts the pool with this sample
    for (int i = 0; i < 200 && pool < 8; ++i) {
      dev.turnBody(spin);
      dev.turnWorld(tumble);
      pool = calRead(dev, 0, 1);
    }
    calReadFarOff(dev);  // late phase: saved offset back, a fit on one sample
    for (int i = 0; i < 400 && pool < 32; ++i) {
      dev.turnBody(spin);
      dev.turnWorld(tumble);
      if (i % 3 == 0) dev.turnBody(wobble);
      pool = calRead(dev, 0, 0);
    }
    // The pool is full; with a ratio band nobody meets, the full fit fails.
    const float tight[8] = {6.0f, 16.0f, 32.0f, 0.1f, 0.1f, 0.9999f, 1.0001f, 1.4f};
    initial(kAxis, kNoInit, tight, kThd, kParaC, traceLog);
    dev.turnBody(spin);
    calRead(dev, 0, 0);
    initial(kAxis, kNoInit, kPool, kThd, kParaC, traceLog);
  }

  section("calibration: small pools on a narrow cap (ill-conditioned fits)");
  {
    // Fits from the fourth pooled sample on, samples only 0.01 apart on a
    // slowly widening spiral a few degrees across: the normal matrix is
    // nearly singular, so the results amplify every rounding step of the fit.
    const float capPool[8] = {4.0f, 5.0f, 32.0f, 0.01f, 0.01f, 0.85f, 1.15f, 1.4f};
    initial(kAxis, kNoInit, capPool, kThd, kParaC, traceLog);
    Device cap;
    cap.magNoise = 0.0f;
    const Quat base = step(0.1f, 0.6f, 0.8f, 0.0f);
    const Quat around = step(0.02f, 0.0f, 0.0f, 1.0f);
    const Quat widen = step(0.0005f, 1.0f, 0.0f, 0.0f);
    Quat phase = kIdentity;
    Quat lean = step(0.0087f, 1.0f, 0.0f, 0.0f);
    for (int i = 0; i < 220; ++i) {
      phase = renormalise(multiply(phase, around));
      lean = renormalise(multiply(lean, widen));
      const Quat back{phase.w, -phase.x, -phase.y, -phase.z};
      cap.attitude = renormalise(multiply(base, multiply(multiply(phase, lean), back)));
      calRead(cap, i == 0 ? 1 : 0, 0);
    }
    initial(kAxis, kNoInit, kPool, kThd, kParaC, traceLog);
  }

  section("calibration: logging switched off, zero stored offset");
  initial(kAxis, kNoInit, kPool, kThd, kParaC, nullptr);
  for (int i = 0; i < 20; ++i) {
    dev.turnBody(spin);
    calRead(dev, 0, 1);
  }
  RegisterLogCallback(traceLog);
  section("calibration: sample rate 0 (every watched sample downgrades)");
  {
    const float init[4] = {-0.0f, 0.0f, 0.001f, 0.0f};
    const int32_t paraC[3] = {0, 11, 8};
    initial(kAxis, init, kPool, kThd, paraC, traceLog);
  }
  for (int i = 0; i < 10; ++i) {
    dev.turnBody(spin);
    calRead(dev, 0, 0);
  }
}

// ----------------------------------------------------------- virtual gyro

int gyroCall = 0;

void gyroStep(const float* mag, const float* acc, int32_t restart, int32_t mode, float ts, bool print) {
  float rate[3], quat[4];
  if (print) {
    std::fprintf(out, "gyro %d rs %d mode %d", gyroCall, restart, mode);
    putFloats("ts", &ts, 1);
    putFloats("mag", mag, 3);
    putFloats("acc", acc, 3);
    endLine();
  }
  LogCallback saved = log_func;
  if (!print) RegisterLogCallback(nullptr);
  CalcQueltaGyro(mag, acc, restart, mode, ts);
  RegisterLogCallback(saved);
  GetCalGyr(rate);
  GetRotVec_InVG(quat);
  if (print) {
    putFloats(" gyr", rate, 3);
    putFloats("rv", quat, 4);
    endLine();
  }
  ++gyroCall;
}

// The calibrated field: the device without a hard-iron offset.
void gyroRead(Device& dev, int32_t restart, int32_t mode, float ts, bool print = true) {
  float acc[3], mag[3];
  dev.read(acc, mag);
  gyroStep(mag, acc, restart, mode, ts, print);
}

void virtualGyroScenario() {
  Device dev;
  dev.hardIron[0] = dev.hardIron[1] = dev.hardIron[2] = 0.0f;
  dev.magNoise = 0.0005f;
  dev.accNoise = 0.001f;
  const float zero[3] = {0.0f, 0.0f, 0.0f};
  const float nan = __builtin_nanf("");

  section("virtual gyroscope: first calls, still device");
  for (int i = 0; i < 30; ++i) gyroRead(dev, 0, 1, 0.01f);

  section("virtual gyroscope: turning about device z at three speeds");
  const Quat speeds[3] = {step(0.004f, 0.0f, 0.0f, 1.0f), step(0.02f, 0.0f, 0.0f, 1.0f),
                          step(0.06f, 0.0f, 0.0f, 1.0f)};
  for (int s = 0; s < 3; ++s) {
    for (int i = 0; i < 60; ++i) {
      dev.turnBody(speeds[s]);
      gyroRead(dev, 0, i % 3, 0.01f);
    }
  }
  section("virtual gyroscope: tumbling about a skew axis, then still");
  const Quat skew = step(0.012f, 0.48f, 0.6f, 0.64f);
  for (int i = 0; i < 80; ++i) {
    dev.turnBody(skew);
    gyroRead(dev, 0, 1, 0.01f);
  }
  for (int i = 0; i < 40; ++i) gyroRead(dev, 0, 0, 0.01f);

  section("virtual gyroscope: interval edge values while turning");
  const float intervals[8] = {0.0f, nan, 0.005f, 0.03f, 0.04f, -0.01f, 1e-8f, 0.02f};
  for (int k = 0; k < 8; ++k) {
    for (int i = 0; i < 6; ++i) {
      dev.turnBody(speeds[1]);
      gyroRead(dev, 0, 1, i == 2 ? intervals[k] : 0.01f);
    }
  }
  section("virtual gyroscope: NaN interval in rotating mode (restart on the next call)");
  for (int i = 0; i < 25; ++i) {
    dev.turnBody(speeds[2]);
    gyroRead(dev, 0, 1, i == 12 ? nan : 0.01f);
  }

  section("virtual gyroscope: restart, zero inputs open the start-up error period");
  for (int i = 0; i < 70; ++i) {
    float acc[3], mag[3];
    dev.turnBody(speeds[0]);
    dev.read(acc, mag);
    const int32_t restart = i == 0 ? 5 : 0;
    if (i == 4) {
      gyroStep(mag, zero, restart, 0, 0.01f, true);
    } else if (i == 6) {
      gyroStep(zero, acc, restart, 1, 0.0f, true);
    } else if (i == 60) {
      gyroStep(zero, zero, restart, 0, 0.01f, true);
    } else {
      gyroStep(mag, acc, restart, i % 3, 0.01f, true);
    }
  }
  section("virtual gyroscope: fast spin (rate choice and compensation limits)");
  const Quat fast = step(0.2f, 0.0f, 0.0f, 1.0f);
  const Quat faster = step(0.45f, 0.6f, 0.0f, 0.8f);
  for (int i = 0; i < 30; ++i) {
    dev.turnBody(i < 15 ? fast : faster);
    gyroRead(dev, 0, 1, i % 2 == 0 ? 0.01f : 0.02f);
  }
  section("virtual gyroscope: repeated restarts, long still run (printed every 10th)");
  for (int i = 0; i < 400; ++i) {
    if (i < 100) dev.turnBody(speeds[1]);
    gyroRead(dev, i % 97 == 0 ? 1 : 0, i % 3, 0.01f, i % 10 == 0 || i % 97 < 2 || i == 399);
  }
}

// ---------------------------------------------------------- rotation vector

int rovCall = 0;

void rovStep(const float* mag, const float* acc, int32_t mode, bool print) {
  float rov[4], grav[3], lin[3];
  if (print) {
    std::fprintf(out, "rov %d mode %d", rovCall, mode);
    putFloats("mag", mag, 3);
    putFloats("acc", acc, 3);
    endLine();
  }
  LogCallback saved = log_func;
  if (!print) RegisterLogCallback(nullptr);
  CalcQueltaRotVec(mag, acc, mode);
  GetCalRov(rov);
  GetQueltaGravityAcc(grav);
  GetQueltaLinearAcc(lin);
  RegisterLogCallback(saved);
  if (print) {
    putFloats(" rov", rov, 4);
    putFloats("grav", grav, 3);
    putFloats("lin", lin, 3);
    putFloats("out", fOutRov, 4);
    putFloats("g", fGravityAcc, 3);
    putFloats("l", fLinearAcc, 3);
    endLine();
  }
  ++rovCall;
}

void rovRead(Device& dev, int32_t mode, bool print = true) {
  float acc[3], mag[3];
  dev.read(acc, mag);
  rovStep(mag, acc, mode, print);
}

void rotationVectorScenario() {
  section("rotation vector: before the first call");
  {
    float rov[4], grav[3], lin[3];
    GetCalRov(rov);
    GetQueltaGravityAcc(grav);
    GetQueltaLinearAcc(lin);
    putFloats("rov", rov, 4);
    putFloats("grav", grav, 3);
    putFloats("lin", lin, 3);
    putFloats("movethd", &movethd, 1);
    endLine();
  }
  Device dev;
  dev.hardIron[0] = dev.hardIron[1] = dev.hardIron[2] = 0.0f;
  dev.magNoise = 0.001f;
  dev.accNoise = 0.002f;
  dev.field[1] = 20.0f;  // microtesla scale: only directions matter
  dev.field[2] = -40.0f;
  section("rotation vector: still, then turning (raw, 30-mean and 6-mean stages)");
  const Quat turn = step(0.01f, 0.0f, 0.36f, 0.48f);
  const Quat turnUnit = renormalise(renormalise(Quat{turn.w, 0.0f, turn.y / 0.6f, turn.z / 0.6f}));
  for (int i = 0; i < 120; ++i) {
    if (i >= 20) dev.turnBody(turnUnit);
    rovRead(dev, i % 4 == 1 ? 0 : 1);
  }
  section("rotation vector: hold threshold changes");
  const float thresholds[5] = {0.0f, 0.1f, 0.02f, -1.0f, 0.005f};
  for (int k = 0; k < 5; ++k) {
    movethd = thresholds[k];
    for (int i = 0; i < 40; ++i) {
      dev.turnBody(turnUnit);
      rovRead(dev, k == 0 ? 1 : 2);
    }
  }
  section("rotation vector: linear acceleration, upside down, long run (printed every 8th)");
  dev.linearAcc[0] = 0.3f;
  dev.linearAcc[2] = -0.2f;
  const Quat flip = step(0.05f, 1.0f, 0.0f, 0.0f);
  for (int i = 0; i < 480; ++i) {
    dev.turnBody(i < 200 ? flip : turnUnit);
    rovRead(dev, 1, i % 8 == 0 || i == 479);
  }
  section("rotation vector: zero and degenerate inputs");
  {
    const float zero[3] = {0.0f, 0.0f, 0.0f};
    const float up[3] = {0.0f, 0.0f, 1.0f};
    const float alongUp[3] = {0.0f, 0.0f, -3.0f};
    for (int i = 0; i < 3; ++i) rovStep(zero, zero, 1, true);
    for (int i = 0; i < 3; ++i) rovStep(alongUp, up, 1, true);
  }
  movethd = 0.005f;
}

// ------------------------------------------------------------ building blocks

void putBuffer(const char* name, const DataBuffer& b, const float* storage) {
  std::fprintf(out, "  %s own %d dim %d len %d index %d full %d count %d", name, b.data == storage ? 1 : 0,
               b.dim, b.len, b.index, b.full, b.count);
  putFloats("data", storage, b.dim * b.len);
  endLine();
}

struct Exported {
  const char* name;
  DataBuffer* buf;
  float* storage;
};

const Exported kBuffers[10] = {
    {"bfMagRaw", &bfMagRaw, bfMagRawData}, {"bfMagMed", &bfMagMed, bfMagMedData},
    {"bfMagLPF", &bfMagLPF, bfMagLPFData}, {"bfMagMean", &bfMagMean, bfMagMeanData},
    {"bfAccRaw", &bfAccRaw, bfAccRawData}, {"bfAccMed", &bfAccMed, bfAccMedData},
    {"bfAccLPF", &bfAccLPF, bfAccLPFData}, {"bfAccMean", &bfAccMean, bfAccMeanData},
    {"bfWRaw", &bfWRaw, bfWRawData},       {"bfWFilter", &bfWFilter, bfWFilterData}};

void putAllBuffers() {
  for (const Exported& e : kBuffers) putBuffer(e.name, *e.buf, e.storage);
}

void getAll(const char* name, const DataBuffer& b) {
  for (int k = -1; k <= b.len; ++k) {
    float v[3] = {-1.0f, -1.0f, -1.0f};
    const int32_t r = bfGet(&b, v, k);
    std::fprintf(out, "  get %s k %d ret %d", name, k, r);
    putFloats("", v, b.dim < 3 ? b.dim : 3);
    endLine();
  }
}

void ringBufferScenario() {
  section("ring buffers: state left by the virtual gyroscope");
  putAllBuffers();
  section("ring buffers: clear, create, put and get on the exported records");
  ClearDataBuffer();
  putAllBuffers();
  CreateDataBuffer();
  putAllBuffers();
  Noise noise{7u};
  for (int i = 0; i < 5; ++i) {
    for (const Exported& e : kBuffers) {
      float s[3] = {noise.next(), noise.next() * 4.0f, static_cast<float>(i)};
      bfPut(e.buf, s);
    }
    std::fprintf(out, "after put %d\n", i);
    putAllBuffers();
    getAll("bfMagRaw", bfMagRaw);
    getAll("bfWRaw", bfWRaw);
    getAll("bfWFilter", bfWFilter);
  }
  bfClear(&bfMagMean);
  putBuffer("bfMagMean", bfMagMean, bfMagMeanData);
  getAll("bfMagMean", bfMagMean);
  section("ring buffers: bfNew over caller storage, other widths");
  float storage[20];
  for (int i = 0; i < 20; ++i) storage[i] = -2.0f;
  DataBuffer wide;
  bfNew(&wide, storage, 4, 5);
  for (int i = 0; i < 7; ++i) {
    const float s[4] = {static_cast<float>(i), 0.5f * static_cast<float>(i), -1.0f, noise.next()};
    bfPut(&wide, s);
    putBuffer("wide", wide, storage);
  }
  for (int k = -1; k <= 5; ++k) {
    float v[4] = {9.0f, 9.0f, 9.0f, 9.0f};
    const int32_t r = bfGet(&wide, v, k);
    std::fprintf(out, "  get wide k %d ret %d", k, r);
    putFloats("", v, 4);
    endLine();
  }
  DataBuffer none;
  bfNew(&none, storage, 0, 2);
  const float s[1] = {1.0f};
  bfPut(&none, s);
  bfPut(&none, s);
  bfPut(&none, s);
  std::fprintf(out, "  dim0 index %d full %d count %d\n", none.index, none.full, none.count);
  CreateDataBuffer();
}

void filterScenario() {
  section("filters: median, mean and low-pass over growing sources");
  float srcStore[3 * 70], medStore[3 * 4], meanStore[3 * 4], lpfStore[3 * 4], narrowStore[2 * 4];
  std::memset(srcStore, 0, sizeof srcStore);
  DataBuffer src, med, avg, lpf, narrow;
  bfNew(&src, srcStore, 3, 70);
  bfNew(&med, medStore, 3, 4);
  bfNew(&avg, meanStore, 3, 4);
  bfNew(&lpf, lpfStore, 3, 4);
  bfNew(&narrow, narrowStore, 2, 4);
  const float b[3] = {0.06f, 0.06f, 0.01f};
  const float a[3] = {1.0f, -0.88f, 0.02f};
  const float b2[2] = {0.15f, 0.15f};
  const float a2[2] = {1.0f, -0.7f};
  Noise noise{99u};
  {
    float v[3];
    const int32_t r1 = medFilter(&src, &med, 3);
    const int32_t r2 = meanFilter(&src, &avg, 3);
    bfGet(&avg, v, 0);
    const int32_t r3 = LPF(&src, &lpf, b2, a2, 2, 2);
    std::fprintf(out, "empty source: med %d mean %d lpf %d", r1, r2, r3);
    putFloats("meanout", v, 3);
    endLine();
  }
  for (int i = 0; i < 72; ++i) {
    const float x[3] = {noise.next(), (i % 5 == 0) ? 2.0f : noise.next() * 0.25f, static_cast<float>(i % 4)};
    bfPut(&src, x);
    const int32_t windows[4] = {3, 2, 1 + i % 9, i};
    std::fprintf(out, "filters %d", i);
    putFloats("x", x, 3);
    for (int w = 0; w < 4; ++w) {
      float m[3] = {0, 0, 0}, v[3] = {0, 0, 0};
      const int32_t rm = medFilter(&src, &med, windows[w]);
      const int32_t rv = meanFilter(&src, &avg, windows[w]);
      bfGet(&med, m, 0);
      bfGet(&avg, v, 0);
      std::fprintf(out, " | n %d med %d", windows[w], rm);
      putFloats("", m, 3);
      std::fprintf(out, " mean %d", rv);
      putFloats("", v, 3);
    }
    float y[3];
    const int32_t r2 = LPF(&src, &lpf, b2, a2, 2, 2);
    bfGet(&lpf, y, 0);
    std::fprintf(out, " | lpf22 %d", r2);
    putFloats("", y, 3);
    const int32_t r3 = LPF(&src, &lpf, b, a, 3, 3);
    bfGet(&lpf, y, 0);
    std::fprintf(out, " lpf33 %d", r3);
    putFloats("", y, 3);
    const int32_t r4 = LPF(&src, &lpf, b, a, 3, 1);
    bfGet(&lpf, y, 0);
    std::fprintf(out, " lpf31 %d", r4);
    putFloats("", y, 3);
    endLine();
  }
  section("filters: refusals");
  {
    DataBuffer tiny;
    float tinyStore[3];
    bfNew(&tiny, tinyStore, 3, 1);
    const int32_t r[7] = {medFilter(&src, &narrow, 3), meanFilter(&src, &narrow, 3), medFilter(&tiny, &med, 2),
                          meanFilter(&tiny, &avg, 2),  medFilter(&src, &med, 65),      medFilter(&src, &med, 0),
                          meanFilter(&src, &avg, 0)};
    std::fprintf(out, "med dim %d mean dim %d med n>len %d mean n>len %d med 65 %d med 0 %d mean 0 %d\n", r[0],
                 r[1], r[2], r[3], r[4], r[5], r[6]);
    float v[3];
    bfGet(&avg, v, 0);
    putFloats("mean of empty window", v, 3);
    endLine();
    const int32_t l1 = LPF(&tiny, &lpf, b, a, 2, 2);
    const int32_t l2 = LPF(&src, &tiny, b, a, 2, 3);
    std::fprintf(out, "lpf nb>len %d na-1>len %d\n", l1, l2);
    putBuffer("med", med, medStore);
    putBuffer("mean", avg, meanStore);
    putBuffer("lpf", lpf, lpfStore);
  }
  section("filters: LPF1");
  {
    float x[2] = {1.0f, 1.0f}, y[2] = {1.0f, 0.0f};
    for (int i = 0; i < 40; ++i) {
      const int32_t r = LPF1(x, y);
      std::fprintf(out, "lpf1 %d ret %d", i, r);
      putFloats("x", x, 2);
      putFloats("y", y, 2);
      endLine();
      y[0] = y[1];
      x[0] = x[1];
      x[1] = (i < 20) ? 359.0f - static_cast<float>(i) * 0.5f : noise.next() * 180.0f;
    }
  }
}

void attitudeScenario() {
  section("attitude: getCn2bMagAcc and dcm2Quat");
  Device dev;
  dev.hardIron[0] = dev.hardIron[1] = dev.hardIron[2] = 0.0f;
  dev.magNoise = 0.0f;
  const Quat tumble = step(0.3f, 0.48f, 0.6f, 0.64f);
  for (int i = 0; i < 40; ++i) {
    float acc[3], mag[3], c[9], q[4] = {7.0f, 7.0f, 7.0f, 7.0f};
    dev.turnBody(tumble);
    dev.read(acc, mag);
    getCn2bMagAcc(mag, acc, c);
    dcm2Quat(c, q);
    std::fprintf(out, "dcm %d", i);
    putFloats("c", c, 9);
    putFloats("q", q, 4);
    endLine();
  }
  const float mats[7][9] = {{1, 0, 0, 0, -1, 0, 0, 0, -1}, {-1, 0, 0, 0, 1, 0, 0, 0, -1},
                            {-1, 0, 0, 0, -1, 0, 0, 0, 1}, {0, 0, 0, 0, 0, 0, 0, 0, 0},
                            {1, 0, 0, 0, 1, 0, 0, 0, 1},   {-1, 0, 0, 0, -1, 0, 0, 0, -1},
                            {0.5f, 0.5f, 0, 0, 0.5f, 0.5f, 0, 0, 0.5f}};
  for (int i = 0; i < 7; ++i) {
    float q[4] = {7.0f, 7.0f, 7.0f, 7.0f};
    dcm2Quat(mats[i], q);
    std::fprintf(out, "dcm fixed %d", i);
    putFloats("q", q, 4);
    endLine();
  }
  const float vecs[5][6] = {{0, 20, -40, 0, 0, 9.8f}, {20, 0, -40, 0, 0, 9.8f}, {0, 0, 0, 0, 0, 1},
                            {0, 0, 5, 0, 0, 1},       {1, 2, 3, 0, 0, 0}};
  for (int i = 0; i < 5; ++i) {
    float c[9], q[4] = {7.0f, 7.0f, 7.0f, 7.0f};
    getCn2bMagAcc(vecs[i], vecs[i] + 3, c);
    dcm2Quat(c, q);
    std::fprintf(out, "cn2b fixed %d", i);
    putFloats("c", c, 9);
    putFloats("q", q, 4);
    endLine();
  }

  section("attitude: GetCn2bAcc");
  for (int i = 0; i < 24; ++i) {
    float acc[3], mag[3];
    dev.turnBody(tumble);
    dev.read(acc, mag);
    // Directions as the rotation vector makes them, then perturbed so that
    // rows longer than unit length occur as well.
    const float k = 1.0f + 0.03125f * static_cast<float>(i % 5);
    float in[8] = {mag[0] * 2.0f, mag[1] * 2.0f, mag[2] * 2.0f, acc[0] * k, acc[1], acc[2], 0.5f, 0.8660254f};
    if (i % 4 == 1) {
      in[6] = 0.0001f;
      in[7] = 1.0f;
    }
    float c[9];
    GetCn2bAcc(in, c);
    std::fprintf(out, "cn2bacc %d", i);
    putFloats("in", in, 8);
    putFloats("c", c, 9);
    endLine();
  }

  section("attitude: getWMag (axis hold over flips, small turns, repeats)");
  float store[9];
  DataBuffer field;
  bfNew(&field, store, 3, 3);
  {
    float w[3] = {5.0f, 5.0f, 5.0f};
    getWMag(&field, w, 0.01f);
    putFloats("empty", w, 3);
    endLine();
  }
  Device spinner;
  spinner.hardIron[0] = spinner.hardIron[1] = spinner.hardIron[2] = 0.0f;
  spinner.magNoise = 0.0f;
  const Quat axes[3] = {step(0.03f, 0.0f, 0.0f, 1.0f), step(0.03f, 1.0f, 0.0f, 0.0f), step(0.004f, 0.0f, 1.0f, 0.0f)};
  for (int i = 0; i < 60; ++i) {
    // Alternate the turning axis every call for a while (axis flips), then
    // turn slowly (small turns), then repeat a sample.
    const Quat& d = i < 24 ? axes[i % 2] : (i < 40 ? axes[0] : axes[2]);
    if (i != 50 && i != 51) spinner.turnBody(d);
    float acc[3], mag[3], w[3];
    spinner.read(acc, mag);
    bfPut(&field, mag);
    getWMag(&field, w, i % 7 == 3 ? 0.02f : 0.1f);
    std::fprintf(out, "wmag %d", i);
    putFloats("m", mag, 3);
    putFloats("w", w, 3);
    endLine();
  }
}

void rotationModeScenario() {
  section("rotation mode: deviceRotationMode runs");
  Noise noise{4242u};
  for (int i = 0; i < 120; ++i) {
    float w[3];
    if (i < 15) {
      w[0] = 0.12f; w[1] = 0.0f; w[2] = -0.01f;   // moving by rate, small angle
    } else if (i < 40) {
      w[0] = 0.05f * noise.next(); w[1] = 0.05f; w[2] = 0.0f;  // still by rate
    } else if (i < 45) {
      w[0] = 0.0f; w[1] = 0.0f; w[2] = 4.0f;      // angle trigger
    } else if (i < 70) {
      w[0] = 0.09f; w[1] = -0.1f; w[2] = 0.1f;    // still, drifting angle
    } else if (i < 80) {
      w[0] = __builtin_nanf(""); w[1] = 0.0f; w[2] = 0.0f;
    } else {
      w[0] = noise.next(); w[1] = noise.next() * 0.2f; w[2] = noise.next() * 0.05f;
    }
    const int32_t restart = (i == 0 || i == 100) ? 1 : (i == 110 ? -3 : 0);
    const float dt = (i % 11 == 5) ? 0.02f : 0.01f;
    const uint8_t mode = deviceRotationMode(w, restart, dt);
    std::fprintf(out, "mode %d rs %d", i, restart);
    putFloats("w", w, 3);
    putFloats("dt", &dt, 1);
    putInt("->", mode);
    endLine();
  }

  section("compensation: filterCompensation");
  const float b[2] = {0.06f, 0.06f};
  const float a[2] = {1.0f, -0.88f};
  const float b3[3] = {0.2f, 0.3f, 0.1f};
  const float a3[3] = {1.0f, -0.5f, 0.1f};
  const float rates[8][3] = {{1.0f, 5.0f, 10.0f},   {12.84f, -12.9f, 0.0f}, {1e-8f, -1e-7f, 2e-7f},
                             {100.0f, 300.0f, 628.0f}, {-0.5f, 0.25f, 3.0f}, {__builtin_nanf(""), 1.0f, -1.0f},
                             {50.0f, -75.0f, 20.0f},   {0.001f, 0.01f, 0.1f}};
  const float dts[4] = {0.01f, 0.005f, 0.03f, 0.2f};
  for (int i = 0; i < 8; ++i) {
    for (int d = 0; d < 4; ++d) {
      float g[3] = {1.0f, 1.0f, 1.0f}, g3[3] = {1.0f, 1.0f, 1.0f}, g1[3] = {1.0f, 1.0f, 1.0f};
      filterCompensation(g, rates[i], b, a, 2, 2, dts[d]);
      filterCompensation(g3, rates[i], b3, a3, 3, 3, dts[d]);
      filterCompensation(g1, rates[i], b3, a3, 1, 1, dts[d]);
      std::fprintf(out, "comp %d dt %d", i, d);
      putFloats("w", rates[i], 3);
      putFloats("g22", g, 3);
      putFloats("g33", g3, 3);
      putFloats("g11", g1, 3);
      endLine();
    }
  }

  section("generator: myRand");
  const int32_t seeds[7][2] = {{1, 0}, {12345, 1}, {0, 1}, {-5, 1}, {2147483647, 1}, {-2147483647 - 1, 1}, {77, 0}};
  for (int s = 0; s < 7; ++s) {
    std::fprintf(out, "rand seed %d reseed %d", seeds[s][0], seeds[s][1]);
    for (int i = 0; i < 12; ++i) {
      const float u = myRand(i == 0 ? seeds[s][0] : 3, i == 0 ? seeds[s][1] : 0);
      putFloat(u);
    }
    endLine();
  }
}

// --------------------------------------------------------------- math

void mathScenario() {
  section("math: vectors");
  Noise noise{31337u};
  float v[8], w[8], o[8];
  for (int t = 0; t < 12; ++t) {
    for (int i = 0; i < 8; ++i) {
      v[i] = noise.next() * static_cast<float>(1 << (t % 6));
      w[i] = noise.next();
    }
    if (t == 11) v[0] = v[1] = v[2] = 0.0f;
    std::fprintf(out, "vec %d", t);
    putFloats("v", v, 8);
    putFloats("w", w, 8);
    for (int n = 0; n <= 8; n += 4) {
      putFloat(norm2(v, n));
      putFloat(dot(v, w, n));
      putFloat(mean(v, n));
    }
    cross(v, w, o);
    putFloats("cross", o, 3);
    vecNormalize(v, o, 3);
    putFloats("unit3", o, 3);
    vecNormalize(v, o, 8);
    putFloats("unit8", o, 8);
    std::memcpy(o, w, sizeof o);
    vecNormalize(o, o, 5);
    putFloats("inplace5", o, 5);
    std::memcpy(o, v, sizeof o);
    sort(o, 8);
    putFloats("sort8", o, 8);
    std::memcpy(o, v, sizeof o);
    sort(o, t % 4);
    putFloats("sortn", o, 8);
    endLine();
  }
  {
    float d[6] = {2.0f, 2.0f, 9.0f, -0.0f, 0.0f, 2.0f};
    sort(d, 6);
    putFloats("sort dup", d, 6);
    endLine();
  }

  section("math: quaternions");
  for (int t = 0; t < 10; ++t) {
    float p[4], q[4], r[4], c[4];
    for (int i = 0; i < 4; ++i) {
      p[i] = noise.next() * 2.0f;
      q[i] = noise.next();
    }
    if (t == 8) p[0] = p[1] = p[2] = p[3] = 1e-12f;
    if (t == 9) p[0] = -0.5f;
    std::fprintf(out, "quat %d", t);
    putFloats("p", p, 4);
    putFloats("q", q, 4);
    quatConj(p, c);
    putFloats("conj", c, 4);
    quatMultiply(p, q, r);
    putFloats("mul", r, 4);
    quatNormalize(p, r);
    putFloats("norm", r, 4);
    std::memcpy(r, p, sizeof r);
    quatNormalize(r, r);
    putFloats("norm inplace", r, 4);
    quatConj(r, r);
    putFloats("conj inplace", r, 4);
    endLine();
  }

  section("math: complex numbers");
  for (int t = 0; t < 10; ++t) {
    float za[2] = {noise.next() * 3.0f, noise.next()}, zb[2] = {noise.next(), noise.next() * 2.0f}, r[2];
    if (t == 8) za[0] = za[1] = 0.0f;
    if (t == 9) zb[0] = zb[1] = 0.0f;
    std::fprintf(out, "complex %d", t);
    putFloats("a", za, 2);
    putFloats("b", zb, 2);
    putFloat(ComplexAbs(za));
    ComplexConj(za, r);
    putFloats("conj", r, 2);
    ComplexInv(za, r);
    putFloats("inv", r, 2);
    ComplexAdd(za, zb, r);
    putFloats("add", r, 2);
    ComplexSub(za, zb, r);
    putFloats("sub", r, 2);
    ComplexMultiply(za, zb, r);
    putFloats("mul", r, 2);
    ComplexMultiplyReal(za, -1.5f, r);
    putFloats("mulr", r, 2);
    ComplexDivide(za, zb, r);
    putFloats("div", r, 2);
    for (int n = -1; n <= 5; ++n) {
      ComplexExp(za, n, r);
      putFloats("pow", r, 2);
    }
    r[0] = za[0];
    r[1] = za[1];
    ComplexInv(r, r);
    ComplexAdd(r, zb, r);
    ComplexSub(r, za, r);
    ComplexConj(r, r);
    ComplexMultiplyReal(r, 0.25f, r);
    putFloats("inplace", r, 2);
    endLine();
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    out = std::fopen(argv[1], "wb");
    if (out == nullptr) {
      std::fprintf(stderr, "golden_trace: cannot write %s\n", argv[1]);
      return 2;
    }
  }
  std::fputs("QueltaAlgo golden trace 1\n", out);
  calibrationScenario();
  virtualGyroScenario();
  rotationVectorScenario();
  ringBufferScenario();
  filterScenario();
  attitudeScenario();
  rotationModeScenario();
  mathScenario();
  std::fputs("== end\n", out);
  return std::fclose(out) == 0 ? 0 : 1;
}
