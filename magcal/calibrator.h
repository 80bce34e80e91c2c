// The hard-iron calibrator: configuration, histories, pool and results of one
// magnetometer. The exported C functions act on defaultCalibrator(); tests and
// hosts with several magnetometers can create their own instances.
#pragma once

#include <cstdint>

#include "magcal/calibration_state.h"
#include "magcal/sphere_fit.h"

namespace quelta {

class Calibrator {
 public:
  CalibrationState state;

  // AlgoInitial without the callback registration (the callback is
  // process-wide; the C layer registers it first).
  int32_t initial(const float* paraAxis, const float* paraInit, const float* paraPool,
                  const float* paraThd, const int32_t* paraC);

  // MainAlgorithmProcess.
  int32_t process(const float* acc, const float* mag, const float* satMag, int32_t iReStart,
                  int32_t iCalLogMode);

  // Result accessors (GetCalMag, GetRawMag, GetOffset, GetCalPara,
  // GetMagAccuracy, GetMagSaturation).
  int32_t calMag(float* out);
  void rawMag(float* out) const;
  int32_t offset(float* out) const;
  int32_t calPara(float* out);
  int32_t accuracy() const { return state.iMagAccuracy; }
  int32_t saturation();

 private:
  // Outcome of comparing the current sample with the pooled ones.
  struct PoolScan {
    enum Verdict { kAdmitted, kTooClose, kTooFar } verdict;
    int32_t index;   // pooled sample that failed (kTooClose, kTooFar)
    float distance;  // its distance from the current sample
  };

  // Sample intake: axis mapping and the 30-sample histories. Returns true
  // when the histories were already full and the oldest entry dropped out.
  bool intake(const float* acc, const float* mag, const float* satMag);
  void updateVariances(float probeVariance[3]);
  void watchSaturation(const float probeVariance[3]);
  // Returns true when the accuracy was downgraded on this sample.
  bool watchQuality();
  // Keeps a full calibration (accuracy 3) fresh with a pool of its own.
  void refine();

  // The pool step for accuracy 0 to 2 and its phases.
  void CalBufferUpdate();
  void poolEarly();
  void poolLate();
  void poolFull();
  void appendToPool(int32_t position);
  PoolScan scanPool(int32_t count) const;
  int32_t fullPoolCount() const;

  SpherePara SphereFit(int32_t n) const;
  void adoptFullFit(const SpherePara& fit);
  void restoreSaved();
};

// The process-wide instance behind the C interface.
Calibrator& defaultCalibrator();

}  // namespace quelta
