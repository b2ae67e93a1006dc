// The first difference between what the model expects and what the plugin did, in words.
#pragma once

#include "plugin_model.h"

#include <string>
#include <vector>

namespace model
{

// Each returns an empty text when there is no difference.
std::string difference(const Outcome &expected, const Outcome &actual);
std::string difference(const std::vector<Outcome> &expected, const std::vector<Outcome> &actual);
// `is_whole`: the actual file may not end early.
std::string difference(const std::string &path, const Output_File &expected, const std::string &actual,
                       bool is_whole);

} // namespace model
