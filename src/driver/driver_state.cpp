#include "driver/driver_state.h"

namespace zpregflt {

constinit DriverState State = {};
constinit POOL_TYPE NonPagedPoolType = NonPagedPool;

}  // namespace zpregflt
