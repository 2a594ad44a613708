/* lumicrest identification: one photo against a library of fingerprints.
 *
 * An addition beside the five functions of lumicrest.h, under the same rules:
 * every function returns a lumicrest_error_code (200 on success), never
 * throws, aborts or writes to standard output; every wchar_t* handed back is
 * malloc'ed and released by the caller with free. */
#ifndef LUMICREST_IDENTIFY_H
#define LUMICREST_IDENTIFY_H

#include "lumicrest.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An opened library of fingerprint files. */
typedef struct lumicrest_library_s lumicrest_library_s;

/* Flags of lumicrest_open_library. */
#define LUMICREST_LIBRARY_WRITE_DIGESTS 1 /* store digests made on first use beside their fingerprints */
#define LUMICREST_LIBRARY_NO_DIGEST_PASS 2 /* full PCE with every fingerprint (validation of the digest pass) */

/* Opens count fingerprint files (engine bytes or the program's ".fnp"
 * container) as one library. Each file's digest, the positions and values of
 * its strongest elements, is read from "<file>.digest" when that file exists
 * and belongs to the fingerprint's checksum; otherwise it is made from the
 * fingerprint and, with LUMICREST_LIBRARY_WRITE_DIGESTS, written there (a
 * folder that cannot be written to is no error). The fingerprints themselves
 * are loaded only when a photo needs them, and kept within the memory budget.
 * outJson receives {"fingerprints":[{"index":0,"width":W,"height":H,
 * "status":200,"digest":"read"|"made"|"written"},...]} in the order given; a
 * file that cannot be used has its status (450, 410, ...) and is left out of
 * every identification. *out is null unless 200 is returned; 200 is returned
 * even when some files were left out. */
LUMICREST_EXPORT lumicrest_error_code lumicrest_open_library(const wchar_t** paths, int count, int flags,
                                                            lumicrest_library_s** out, wchar_t** outJson);

/* Correlates one photo with every usable fingerprint of the library. Safe to
 * call from many threads at once on the same library. outJson receives
 * {"compared":N,"tried":T,"positions":P,"reason":"",
 *  "matches":[{"index":i,"sensor_matched":1,"probability":p,"corr":c,
 *  "pce":x,"pce_raw":y,"scale":s,"orientation":r,"shift":[dx,dy]},...],
 *  "best":{...the same members...}}
 * where N counts the fingerprints whose size the photo fits (compared), T
 * those that got the full PCE after the digest pass, and P every position
 * examined over all fingerprints; the PCE of each entry is corrected for P,
 * so that the false-alarm rate per photo stays that of one comparison. Only
 * matching fingerprints are listed, strongest first; "best" is the strongest
 * fingerprint that got the full PCE, matching or not (null when none did), so
 * a caller can say how close the nearest camera came. When the photo fits no
 * fingerprint, N is 0 and reason is "size" (or "too small"). A photo that
 * cannot be read gives its result value, with reason naming the failure.
 * "failed" lists the fingerprints found damaged (or changed since the library
 * was opened) when this photo needed them in full: they are left out of this
 * identification and not counted in N, so the photo was not compared with
 * them. Each digest is sampled in every turn in which the photo has the
 * fingerprint's size; crops and resized photos get the full match with every
 * fingerprint they fit. Full fingerprints are kept between calls in a cache
 * of at most a quarter of the engine's memory budget. */
LUMICREST_EXPORT lumicrest_error_code lumicrest_identify(const lumicrest_library_s* library,
                                                        const wchar_t* photoPath, wchar_t** outJson);

/* Releases a library; safe on null. */
LUMICREST_EXPORT lumicrest_error_code lumicrest_close_library(lumicrest_library_s* library);

#ifdef __cplusplus
}
#endif

#endif
