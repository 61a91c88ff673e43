#include "worker/worker.h"

namespace bootstrand {

void Worker::LimitWorkers(int) {}

}  // namespace bootstrand
