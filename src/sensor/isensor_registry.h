// Registry of the sensor objects made by CreateISensor and not yet destroyed.
// Internal to the library; declared here so that tests can inspect it.
#ifndef TAVK05_SENSOR_ISENSOR_REGISTRY_H
#define TAVK05_SENSOR_ISENSOR_REGISTRY_H

#include "tavk05/isensor.h"

enum {
    ISENSOR_REGISTRY_SIZE = 100  // at most this many live sensors
};

// Entries 0 .. g_nCntISensor-1 are the live sensors in order of creation; the
// entries behind them are null.
extern ISensor* g_pSaveISensor[ISENSOR_REGISTRY_SIZE];
extern int g_nCntISensor;

#endif
