// What must hold between a product file's values, the products, the parts and the files of a board.
#pragma once

#include "tools/quilctl/files/product_file.h"

namespace quil::tools {

std::vector<ProductProblem> applyProductRules(const ProductValues& values,
                                              const std::filesystem::path& root);

}  // namespace quil::tools
