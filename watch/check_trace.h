// The trace files of a configuration under check.
#pragma once

#include "watch/check_report.h"
#include "watch/check_values.h"

namespace qixx::watch {

/// Names and folders of the files that are to be traced to. A journal, and a trace server, are no
/// files.
void CheckTraceFiles(const CheckedConfiguration& configuration, Mistakes& mistakes);

}  // namespace qixx::watch
