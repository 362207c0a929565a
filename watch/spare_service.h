// spare: asked of this layer by the suite's design, built and tested, called by nothing in this
// program. What a service manager that starts the process hands it.
#pragma once

namespace qixx::watch {

/// The service handle that WatchMain was given; always 0 on this platform.
[[nodiscard]] int ServiceHandle();
void SetServiceHandle(int serviceHandle);

}  // namespace qixx::watch
