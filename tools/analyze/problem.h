// A line of an input that the analyzer could not use. Readers collect problems and
// go on with the next line; the caller decides where to report them.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace bootstrand::analyze {

struct Problem {
  std::string file;
  std::size_t line = 0;  // 1-based; 0 when the problem concerns the whole file
  std::string text;
};

using Problems = std::vector<Problem>;

// "file:line: text", or "file: text" for a whole-file problem.
std::string Describe(const Problem& problem);

// Calls `each` with the number and text of every line of `input` that ends with a
// newline. A last line without one was cut off while being written: it is reported
// and left out.
void ForEachCompleteLine(std::istream& input, const std::string& file, Problems& problems,
                         const std::function<void(std::size_t, const std::string&)>& each);

}  // namespace bootstrand::analyze
