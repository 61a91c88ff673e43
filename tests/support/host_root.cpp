#include "support/host_root.h"
