// The JSON type of the program, for declarations: fields keep the order in which they are written.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace pelmar::cli {

using Json = nlohmann::ordered_json;

}  // namespace pelmar::cli
