// Stream manipulator for terminal colours: codes 0 to 7 select a foreground colour
// (ESC "[3<n>m"), code 8 resets all attributes (ESC "[0m").
#pragma once

#include <ostream>

namespace bootstrand {

struct Color {
  int code;
};

std::ostream& operator<<(std::ostream& stream, const Color& color);

}  // namespace bootstrand
