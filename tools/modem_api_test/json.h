// The JSON type of the program, whole.
#pragma once

#include <nlohmann/json.hpp>

#include "json_fwd.h"
