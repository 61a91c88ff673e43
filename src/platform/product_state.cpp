#include "platform/product_state.h"

const char* ProductState_GetName() { return "Bootstrand"; }
const char* ProductState_GetVersion() { return "1.0.0"; }
const char* ProductState_GetBuildNumberString() { return "build-0"; }

const char* ProductState_GetCompilationOption() {
#ifdef NDEBUG
  return "release";
#else
  return "debug";
#endif
}
