// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
#pragma once

#include "config/store.h"

namespace qixx::config {

/// The store of the language string tables.
class CConfigLang : public CConfig {};

}  // namespace qixx::config
