// A module of the store, with a way back to the state in which it starts. Compiled once for each
// module in the place of its source, MODULE_SOURCE; MODULE_STATE is its private state.
#include MODULE_SOURCE  // NOLINT(bugprone-suspicious-include): the source is what is wanted

#include "store_world.h"

namespace {
const store_world::module_registration registration(MODULE_STATE);
}
