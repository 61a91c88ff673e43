// Stand-in for the host's feature-state facility; there is nothing to initialise.
#pragma once

int FeatureState_Init();
