#pragma once

namespace orva::host {

// Delivers a configuration event (0 to 9) to everyone attached for it, in the order in which they
// attached. Called by the host's configuration thread alone.
void deliverConfigEvent(int mode);

}  // namespace orva::host
