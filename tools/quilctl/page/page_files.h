// The files of the page, built in.
#pragma once

#include <map>
#include <string_view>

namespace quil::tools {

const std::map<std::string_view, std::string_view>& pageFiles();  // by "/page.js"

}  // namespace quil::tools
