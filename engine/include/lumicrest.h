/* lumicrest: camera sensor fingerprints (PRNU) from photos.
 *
 * Every function returns a lumicrest_error_code (200 on success) and never
 * throws, aborts or writes to standard output. Every wchar_t* handed back
 * through an out-parameter is allocated with malloc and released by the
 * caller with free. Paths are wide strings, converted to the file system's
 * encoding inside the library. */
#ifndef LUMICREST_H
#define LUMICREST_H

#include <stdbool.h>
#include <stdint.h>
#include <wchar.h>

#include "lumicrest_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t lumicrest_error_code;

/* Result values. */
#define LUMICREST_OK 200
#define LUMICREST_PHOTO_CANNOT_OPEN 410
#define LUMICREST_PHOTO_CORRUPT 412
#define LUMICREST_FINGERPRINT_CANNOT_WRITE 430
#define LUMICREST_PHOTO_TRUNCATED 440
#define LUMICREST_FINGERPRINT_CANNOT_READ 450
#define LUMICREST_PHOTO_UNREADABLE 490
#define LUMICREST_FORMAT_NOT_SUPPORTED 491
#define LUMICREST_INVALID_NULL_POINTER 500
#define LUMICREST_INVALID_COUNT 501
#define LUMICREST_INVALID_EMPTY_PATH 502
#define LUMICREST_INVALID_MODE 503
#define LUMICREST_INVALID_OPTION 504
#define LUMICREST_OUT_OF_MEMORY 550
#define LUMICREST_NUMERIC_FAILURE 570
#define LUMICREST_NUMERIC_NOT_FINITE 571
#define LUMICREST_REFERENCE_SIZE_DIFFERS 701
#define LUMICREST_REFERENCE_CAMERA_DIFFERS 705
#define LUMICREST_PHOTO_TOO_SMALL 715
#define LUMICREST_PHOTO_TOO_LARGE 720
#define LUMICREST_REFERENCE_TOO_DARK 730
#define LUMICREST_REFERENCE_TOO_NOISY 735
#define LUMICREST_REFERENCE_TOO_CLIPPED 740
#define LUMICREST_INTERNAL_ERROR 990
#define LUMICREST_INTERNAL_UNKNOWN 999

/* An engine fingerprint in memory: the fingerprint bytes and their length.
 * A caller may fill data/size itself (for bytes it loaded from a file) and
 * leave priv zero; the engine then reads the bytes as they are. */
typedef struct fingerprint_binary_s
{
    unsigned char* data;
    int32_t size;
    void* priv; /* engine-private; zero when the caller built the struct */
} fingerprint_binary_s;

/* Learns a fingerprint from count photos of one camera. out must be zeroed;
 * release it with release_fingerprint on every path. outText1 receives the
 * per-photo diagnostics and outText2 the warnings, both as JSON. option is a
 * "key=value;..." list (empty: defaults); flag applies the reference checks.
 * progress (may be null) gets (0,0,0) first, (percent, nmse, seconds) after
 * each photo in list order, and (100,0,0) at the end. */
LUMICREST_EXPORT lumicrest_error_code get_sensor_fingerprint(const wchar_t** paths, int count,
                                                             fingerprint_binary_s* out, wchar_t** outText1,
                                                             const wchar_t* option, bool flag, wchar_t** outText2,
                                                             void (*progress)(int, float, float));

/* Correlates one photo with a fingerprint (mode 2). outJson receives
 * {"sensors":[{"images":[{"result":{...}}]}]}. Safe to call from many threads
 * on the same fingerprint. */
LUMICREST_EXPORT lumicrest_error_code match_device_origins(const fingerprint_binary_s* fp, const wchar_t* photoPath,
                                                           int mode, wchar_t** outJson, void (*progress)(int));

/* Writes the fingerprint bytes to a file. */
LUMICREST_EXPORT lumicrest_error_code save_fingerprint_to_disk(const fingerprint_binary_s* fp, const wchar_t* path);

/* Reads a fingerprint file's metadata as JSON: width, height, nmse, make, model,
 * crc32 (the bytes' stored checksum) and more. The file holds the fingerprint
 * bytes alone or inside the program's ".fnp" container; either is verified whole.
 * Only regular files are read. */
LUMICREST_EXPORT lumicrest_error_code get_metadata_sensor_fingerprint(const wchar_t* path, wchar_t** outJson);

/* Frees what get_sensor_fingerprint allocated; safe on a zeroed struct. */
LUMICREST_EXPORT lumicrest_error_code release_fingerprint(fingerprint_binary_s* fp);

#ifdef __cplusplus
}
#endif

#endif
