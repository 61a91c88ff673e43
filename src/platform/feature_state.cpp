#include "platform/feature_state.h"

int FeatureState_Init() { return 0; }
