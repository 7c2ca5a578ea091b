/* Records that are written in C, for the C++ side to read. */
#ifndef VYR_TESTS_RECORDS_IN_C_H
#define VYR_TESTS_RECORDS_IN_C_H

#include "include/vyr_regions.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One game in the last slot, with a value in the last field of each record on the way. */
void FillRestrictionRegion(vyr_restriction_region* region);

/* One report in the last slot. */
void FillDecisionRegion(vyr_decision_region* region);

#ifdef __cplusplus
}
#endif

#endif
