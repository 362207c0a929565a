// Answers the runtime's questions from the configuration.
#pragma once

namespace qixx::watch {

/// Makes the configuration store the source of the runtime's settings; called once at start.
void ConnectRuntimeSettings();

}  // namespace qixx::watch
