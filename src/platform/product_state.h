// Stand-in for the host's product-state queries.
#pragma once

const char* ProductState_GetName();
const char* ProductState_GetVersion();
const char* ProductState_GetBuildNumberString();
const char* ProductState_GetCompilationOption();
