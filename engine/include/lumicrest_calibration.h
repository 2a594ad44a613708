/* lumicrest: the calibration the engine decides by. Published beside the
 * interface so that a program can state the method it relied on (a report's
 * method section) without a second copy of the numbers. */
#ifndef LUMICREST_CALIBRATION_H
#define LUMICREST_CALIBRATION_H

/* "sensor_matched" is 1 when the search-corrected PCE is at least this. */
#define LUMICREST_MATCH_THRESHOLD_PCE 60.0

/* "probability" is log-linear in (1 - p) over log PCE between these points,
 * and beyond the last one (capped below 1). */
#define LUMICREST_LADDER_POINTS 6
#define LUMICREST_LADDER_PCE {10.0, 60.0, 100.0, 200.0, 400.0, 2000.0}
#define LUMICREST_LADDER_PROBABILITY {0.5, 0.95, 0.99, 0.995, 0.999, 0.99999}

#endif
