// SPDX-License-Identifier: Apache-2.0
/*
 * QueltaAlgo - electronic-compass sensor fusion.
 *
 * The one host-facing header of QueltaAlgo.so, usable from C and C++.
 *
 * Four services, each fed once per sample set by the host, on one thread:
 *   - hard-iron calibration of the magnetometer, accuracy 0..3
 *       (AlgoInitial, MainAlgorithmProcess, GetCalMag and the other accessors);
 *   - azimuth, pitch and roll in degrees (GetCalOri);
 *   - a virtual gyroscope for devices without one (CalcQueltaGyro, GetCalGyr);
 *   - a rotation vector with gravity and linear acceleration (CalcQueltaRotVec).
 *
 * Calling order per sample set:
 *   MainAlgorithmProcess -> GetCalMag -> (GetRawMag, GetCalOri, GetMagAccuracy,
 *   GetCalPara, GetMagSaturation in any order);
 *   CalcQueltaGyro -> GetCalGyr, GetRotVec_InVG;
 *   CalcQueltaRotVec -> GetCalRov, GetQueltaGravityAcc, GetQueltaLinearAcc.
 *
 * All state is process-wide; the host serialises every call. Nothing is
 * thrown, no pointer is checked, nothing is allocated.
 *
 * Units: the calibration works in gauss (its defaults assume a field of about
 * 0.5 gauss); the accelerometer unit is the host's (the defaults assume g).
 * Quaternions handed to the host are vector part first (x, y, z, w) and rotate
 * device coordinates into east-north-up.
 */
#ifndef QUELTA_ALGO_H
#define QUELTA_ALGO_H

#include <stdint.h>

/* Version of this header and of the library built from it. The shared
 * object's export list carries no version symbol; hosts compare these. */
#define QUELTA_ALGO_VERSION_MAJOR 0
#define QUELTA_ALGO_VERSION_MINOR 1
#define QUELTA_ALGO_VERSION_PATCH 0
#define QUELTA_ALGO_VERSION_STRING "0.1.0"

#if defined(QUELTA_BUILDING_LIBRARY)
#define QUELTA_API __attribute__((visibility("default")))
#else
#define QUELTA_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------
 * Logging
 * ------------------------------------------------------------------------ */

/* printf-style callback: a format, then the values it names. %d receives an
 * int32_t, %f and %lf a double. The return value is ignored, so printf itself
 * can be registered. Called on the host's thread, inside library calls. */
typedef int (*LogCallback)(const char *fmt, ...);

/* The registered callback; null (the default) switches every line off.
 *
 * With a callback registered, most lines follow the log mode the host passes
 * to its pipeline (MainAlgorithmProcess, CalcQueltaGyro, CalcQueltaRotVec).
 * These lines ignore every log mode and appear whenever a callback is set:
 *   AlgoInitial           "... iMagAccuracy in initial %d" and
 *                         "... paraC[1]= %d paraC[2]= %d" on every call;
 *   MainAlgorithmProcess  "... qualitydown %d" when the quality watch drops
 *                         the accuracy to 0, and "MatInv Err******" when a
 *                         sphere fit meets a singular matrix;
 *   GetCalMag             "... calimag %d %d %d" on every call (calibrated
 *                         field in milligauss, truncated toward zero);
 *   GetCalPara            "... dSphereOffset %d %d %d" on every call (offset
 *                         in milligauss, truncated toward zero).
 * GetCalMag's two "%f" detail lines follow the mode of the latest
 * MainAlgorithmProcess call (1 only), and the rotation vector's accessors
 * follow the mode of the latest CalcQueltaRotVec call. The orientation
 * (GetCalOri) logs nothing. */
QUELTA_API extern LogCallback log_func;

/* Stores fn in log_func, replacing any earlier callback; null silences. */
QUELTA_API void RegisterLogCallback(LogCallback fn);

/* ------------------------------------------------------------------------
 * Hard-iron calibration
 * ------------------------------------------------------------------------ */

/* Set-up; may be called at any time, any number of times. Returns 1.
 * Optional: from load until the first call the library holds these values,
 * so a host content with them can start with MainAlgorithmProcess.
 *   paraAxis  {1, 0, 0,  0, 1, 0,  0, 0, 1} (identity)
 *   paraInit  no stored calibration: offset {0, 0, 0}, radius 0.5, accuracy 0
 *   paraPool  {6, 16, 32, 0.1, 0.1, 0.85, 1.15, 1.4}
 *   paraThd   {0.1, 2e-5, 2e-4}
 *   paraC     {20, 11, 8} (50 samples per second)
 *   no log callback
 * Every array must be given in full: nothing is taken from the defaults.
 *   paraAxis[9]  axis matrix, row-major; samples are multiplied as row vectors.
 *   paraInit[4]  stored calibration: offset x, y, z, radius. An all-zero offset
 *                (-0.0 counts as zero) means "none": accuracy 0, nothing else
 *                changes. Otherwise offset and radius are adopted, accuracy 3.
 *   paraPool[8]  min/mid/full pool counts (truncated to int32, saturating,
 *                NaN -> 0), min distance early, min distance late, ratio low,
 *                ratio high, max distance.
 *   paraThd[3]   accelerometer variance threshold (moving), probe variance
 *                threshold (frozen axis), accelerometer still threshold.
 *   paraC[3]     sample period in ms (sample rate = 1000 / paraC[0], 0 for 0),
 *                azimuth median window length, azimuth mean window length.
 *   logCallback  registered as by RegisterLogCallback (null switches off).
 * No value is rejected; the counts are stored as given. The pool holds 35
 * samples, and whatever the counts say it never grows past them: a full-pool
 * count above 35 acts as 35 when used (the full fit then runs on 35 samples),
 * and the spacing-only early phase, however large the min count, also ends at
 * 35 samples. Grading stays consistent only with min <= mid <= full. */
QUELTA_API int32_t AlgoInitial(const float *paraAxis, const float *paraInit,
                               const float *paraPool, const float *paraThd,
                               const int32_t *paraC, LogCallback logCallback);

/* One sample set: accelerometer, magnetometer (gauss) and the saturation probe
 * vector. iReStart == 1 empties the calibration pool. iCalLogMode 0 or 1
 * enables trace lines, 1 also detail lines; anything else (negative values
 * included) silences them (see log_func for the lines that ignore it).
 * Returns 1.
 *
 * satMag, the saturation probe, is only watched, never calibrated: pass the
 * magnetometer's reading as the sensor gave it (usually the same array as
 * mag; a host that scales or filters mag may pass the unprocessed one). A
 * saturated axis stops following the motion: when the accelerometer says the
 * device moves (30-sample variance above paraThd[0] on any axis) while one
 * probe axis barely varies (30-sample variance below paraThd[1]) for 11
 * sample sets in a row, GetMagSaturation reports 1 once. Its unit is that of
 * paraThd[1] (gauss squared with the defaults). */
QUELTA_API int32_t MainAlgorithmProcess(const float *acc, const float *mag,
                                        const float *satMag, int32_t iReStart,
                                        int32_t iCalLogMode);

/* Calibrated field of the latest sample (3 floats); call right after
 * MainAlgorithmProcess. Returns the number of samples in the pool (0..35). */
QUELTA_API int32_t GetCalMag(float *out);
/* Calibrated field stored by GetCalMag plus the current offset (3 floats). */
QUELTA_API void GetRawMag(float *out);
/* Current hard-iron offset (3 floats). Returns 1. */
QUELTA_API int32_t GetOffset(float *out);
/* Offset x, y, z, radius, horizontal and vertical intensity, inclination in
 * degrees (7 floats). Returns 1 once after each accepted full fit (at accuracy
 * 3 the refinement's refits included), else 0. All 7 floats are written
 * whatever it returns: the offset and radius in force now (as GetOffset:
 * 0 and 0.5 from load, then a stored calibration, a partial fit at accuracy
 * 1 or 2, or a full fit) and the field geometry last measured by GetCalOri
 * (0 until the first measurement). Only a result of 1 marks a calibration
 * worth storing. */
QUELTA_API int32_t GetCalPara(float *out);
/* Calibration accuracy, 0 (uncalibrated) to 3 (full fit). */
QUELTA_API int32_t GetMagAccuracy(void);
/* 1 once after each detected magnetometer saturation, else 0. */
QUELTA_API int32_t GetMagSaturation(void);

/* ------------------------------------------------------------------------
 * Orientation
 * ------------------------------------------------------------------------ */

/* Azimuth [0, 360), pitch (-180, 180], roll [-90, 90] in degrees (3 floats),
 * from the accelerometer and the field stored by GetCalMag. Returns 1.
 * Azimuth runs clockwise from North to the levelled device y axis (top edge).
 * Pitch is positive when the top edge dips and continues past +-90 when the
 * screen faces down; roll is positive when the right edge (device x) rises.
 * Once 30 samples have been seen, the attitude follows the sample nine calls
 * behind the newest. While the accuracy is 3 and the device still, the call
 * also measures the field geometry that GetCalPara reports.
 *
 * The azimuth is smoothed by a median over paraC[1] azimuths and a mean over
 * paraC[2] medians (defaults 11 and 8), so it reports 0 until paraC[2] calls
 * have been made and then settles within about paraC[1] + paraC[2] calls.
 * Within each 45-degree sector a fixed correction moves the azimuth by up to
 * about 2.3 degrees away from the sector's middle, and changes below one
 * degree are not reported.
 *   - Window lengths are clamped to 1..31 (median) and 1..30 (mean). When a
 *     length differs from the one used on the previous call, that window is
 *     emptied and refills as at start-up (the mean window again reports 0
 *     until it is full).
 *   - A smoothed azimuth exactly on a sector end (45, 90, 135, 180, 270) is
 *     reported as it stands; 0 stays 0.
 *   - Values that rounding pushes just past +-1 are clamped before acos and
 *     asin, so they cannot turn the outputs or the smoothing state into NaN;
 *     values within +-1 are used unchanged. */
QUELTA_API int32_t GetCalOri(float *out);

/* ------------------------------------------------------------------------
 * Ring buffers of the virtual gyroscope
 * ------------------------------------------------------------------------ */

/* Fixed-capacity ring buffer over caller-owned storage of dim * len floats,
 * stored as dim planes of len floats (component j of slot s at j*len + s). */
typedef struct DataBuffer {
  float *data;
  int32_t dim;
  int32_t len;
  int32_t index; /* slot of the newest sample, -1 when empty */
  int32_t full;  /* 1 once the write position has wrapped */
  int32_t count; /* valid samples, 0..len */
} DataBuffer;

QUELTA_API extern DataBuffer bfAccRaw, bfAccMed, bfAccLPF, bfAccMean;
QUELTA_API extern DataBuffer bfMagRaw, bfMagMed, bfMagLPF, bfMagMean;
QUELTA_API extern DataBuffer bfWRaw, bfWFilter;
QUELTA_API extern float bfAccRawData[9], bfAccLPFData[9], bfAccMeanData[9];
QUELTA_API extern float bfMagRawData[9], bfMagLPFData[9], bfMagMeanData[9];
QUELTA_API extern float bfAccMedData[6], bfMagMedData[6], bfWRawData[6];
QUELTA_API extern float bfWFilterData[3];

QUELTA_API void bfNew(DataBuffer *buf, float *storage, int32_t dim, int32_t len);
QUELTA_API void bfClear(DataBuffer *buf);
QUELTA_API void bfPut(DataBuffer *buf, const float *sample);
/* k-th newest sample (k = 0 newest) into out; 0 when copied, 1 (and dim
 * zeros) when there is no such sample. A negative k is refused the same way
 * (result 1, zeros). */
QUELTA_API int32_t bfGet(const DataBuffer *buf, float *out, int32_t k);
QUELTA_API void CreateDataBuffer(void);
QUELTA_API void ClearDataBuffer(void);

/* ------------------------------------------------------------------------
 * Smoothing filters: read the newest samples of in, append one to out.
 * Result 0 when a sample was appended, 1 when refused (nothing changed).
 * The filters use no heap: they work in fixed scratch.
 * ------------------------------------------------------------------------ */

/* Per-axis median of the newest n samples (fewer while in is young).
 * Refused (1): other dim, n > in->len, n > 64 (the fixed scratch), or an
 * empty window (n < 1 or an empty source). */
QUELTA_API int32_t medFilter(const DataBuffer *in, DataBuffer *out, int32_t n);
/* Per-axis mean of the newest n samples (fewer while in is young).
 * Refused (1): other dim or n > in->len. An empty window (n < 1 or an empty
 * source) appends a sample of NaN values (result 0). */
QUELTA_API int32_t meanFilter(const DataBuffer *in, DataBuffer *out, int32_t n);
QUELTA_API int32_t LPF(const DataBuffer *in, DataBuffer *out, const float *b,
                       const float *a, int32_t nb, int32_t na);
/* y[1] = 0.045035005 (x[1] + x[0]) + 0.90993 y[0]; returns 0. */
QUELTA_API int32_t LPF1(const float *x, float *y);

/* ------------------------------------------------------------------------
 * Attitude and rate
 * ------------------------------------------------------------------------ */

/* Direction cosine matrix (row-major, columns east, north, up in device
 * coordinates) from one field and one acceleration sample. */
QUELTA_API void getCn2bMagAcc(const float *mag, const float *acc, float *Cn2b);
/* Quaternion (w, x, y, z) of the device-to-ENU rotation; q untouched when the
 * result cannot be normalised. */
QUELTA_API void dcm2Quat(const float *Cn2b, float *q);
/* Angular rate (rad/s when dt is in seconds) from the newest three field
 * samples of buf. Keeps a process-wide axis memory, shared with
 * CalcQueltaGyro. */
QUELTA_API void getWMag(const DataBuffer *buf, float *out, float dt);

/* ------------------------------------------------------------------------
 * Rotation mode and compensation
 * ------------------------------------------------------------------------ */

/* 0 still, 1 rotating; restart != 0 resets the detector first. The detector
 * is process-wide and shared with CalcQueltaGyro. */
QUELTA_API uint8_t deviceRotationMode(const float *w, int32_t restart, float dt);
/* Per-axis reciprocal magnitude response of the filter b/a at |w|*dt/pi. */
QUELTA_API void filterCompensation(float *gain, const float *w, const float *b,
                                   const float *a, int32_t nb, int32_t na,
                                   float dt);
/* Uniform in [-1, 1); seeds on first use or when reseed != 0. One
 * process-wide generator: CalcQueltaGyro's still-mode noise draws from the
 * same sequence. */
QUELTA_API float myRand(int32_t seed, int32_t reseed);

/* ------------------------------------------------------------------------
 * Virtual gyroscope
 * ------------------------------------------------------------------------ */

/* One sample set: field, acceleration (only directions matter), restart
 * request, log mode (1 all lines, 0 error lines, else none), interval in s.
 * Pass a calibrated field (GetCalMag): a hard-iron offset turns with the
 * device and spoils the rate. Log values given as %d are scaled in single
 * precision (interval x 10000, components x 1000) and truncated toward zero;
 * norms are truncated unscaled. The first call sets up the exported bf*
 * buffers. */
QUELTA_API void CalcQueltaGyro(const float *mag, const float *acc,
                               int32_t algoRestart, int32_t iGyroLogMode,
                               float ts);
/* Published angular rate, x, y, z (3 floats). */
QUELTA_API void GetCalGyr(float *out);
/* Attitude quaternion of the last CalcQueltaGyro call, x, y, z, w. */
QUELTA_API void GetRotVec_InVG(float *out);

/* ------------------------------------------------------------------------
 * Rotation vector
 * ------------------------------------------------------------------------ */

/* Published quaternion x, y, z, w; unit gravity direction; acc - gravity. */
QUELTA_API extern float fOutRov[4];
QUELTA_API extern float fGravityAcc[3];
QUELTA_API extern float fLinearAcc[3];
/* Hold threshold of the published quaternion (default 0.005); the host may
 * change it between calls. */
QUELTA_API extern float movethd;

/* One sample pair (only directions matter; acc in g for fLinearAcc to be the
 * linear acceleration). Smoothing: raw samples for calls 1-30, then a 30-call
 * mean, from call 37 the mean of the last six such means. iRovLogMode 1
 * enables this pipeline's lines (accessors included), anything else silences
 * them. */
QUELTA_API void CalcQueltaRotVec(const float *mag, const float *acc,
                                 int32_t iRovLogMode);
/* fMagAccDir: unit field (3), unit acceleration (3), sinA, cosA. Cn2b: 9
 * floats row-major, columns east, north, up in device coordinates. */
QUELTA_API void GetCn2bAcc(const float *fMagAccDir, float *Cn2b);
/* Copies of fOutRov (4 floats), fGravityAcc and fLinearAcc (3 floats each);
 * zeros before the first CalcQueltaRotVec call. */
QUELTA_API void GetCalRov(float *out);
QUELTA_API void GetQueltaGravityAcc(float *out);
QUELTA_API void GetQueltaLinearAcc(float *out);

/* ------------------------------------------------------------------------
 * Vector, quaternion and complex arithmetic (single precision)
 *
 * Quaternions are (w, x, y, z), Hamilton product; complex numbers are
 * (re, im). vecNormalize, quatConj, quatNormalize, ComplexConj, ComplexInv,
 * ComplexAdd, ComplexSub and ComplexMultiplyReal may work in place.
 * cross, quatMultiply, ComplexMultiply, ComplexDivide and ComplexExp must
 * not be given an output that overlaps an input.
 * ------------------------------------------------------------------------ */

QUELTA_API float norm2(const float *v, int32_t n);
QUELTA_API float dot(const float *a, const float *b, int32_t n);
QUELTA_API void cross(const float *a, const float *b, float *out);
QUELTA_API void vecNormalize(const float *v, float *out, int32_t n);
QUELTA_API void sort(float *v, int32_t n);
QUELTA_API float mean(const float *v, int32_t n);

QUELTA_API void quatConj(const float *q, float *out);
QUELTA_API void quatMultiply(const float *p, const float *q, float *out);
QUELTA_API void quatNormalize(const float *q, float *out);

QUELTA_API float ComplexAbs(const float *z);
QUELTA_API void ComplexConj(const float *z, float *out);
QUELTA_API void ComplexInv(const float *z, float *out);
QUELTA_API void ComplexAdd(const float *a, const float *b, float *out);
QUELTA_API void ComplexSub(const float *a, const float *b, float *out);
QUELTA_API void ComplexMultiply(const float *a, const float *b, float *out);
QUELTA_API void ComplexMultiplyReal(const float *z, float r, float *out);
QUELTA_API void ComplexDivide(const float *a, const float *b, float *out);
/* Integer power z^n by repeated multiplication; out = z for n < 2. */
QUELTA_API void ComplexExp(const float *z, int32_t n, float *out);

#ifdef __cplusplus
}
#endif

#endif /* QUELTA_ALGO_H */
