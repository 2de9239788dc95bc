// The help text of every command, keyed by name.
#pragma once

#include <string_view>

namespace qax::app {

const char* help_text_for(std::string_view name);

}  // namespace qax::app
