// The former name of NoDestructor.
#pragma once

#include "runtime/no_destructor.h"

namespace qixx::runtime {

template <typename Type>
using Lasting = NoDestructor<Type>;

}  // namespace qixx::runtime
