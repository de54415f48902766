#pragma once

#include <string>
#include <vector>

namespace keyloft {

// Rows of text cells printed as aligned columns: each cell padded with blanks to the widest cell
// of its column (in user-perceived characters), then one blank; each row ends with a newline.
// Control characters show escaped.
std::string renderTable(std::vector<std::vector<std::string>> rows);

}  // namespace keyloft
