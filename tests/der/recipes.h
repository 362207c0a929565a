// The recipes are shared by several test folders.
#pragma once

#include "tests/support/recipes.h"
