#include "analyze/problem.h"

namespace bootstrand::analyze {

std::string Describe(const Problem& problem) {
  if (problem.line == 0) return problem.file + ": " + problem.text;
  return problem.file + ":" + std::to_string(problem.line) + ": " + problem.text;
}

void ForEachCompleteLine(std::istream& input, const std::string& file, Problems& problems,
                         const std::function<void(std::size_t, const std::string&)>& each) {
  std::string line;
  for (std::size_t number = 1; std::getline(input, line); ++number) {
    // getline sets eof only when the input ended before a newline.
    if (input.eof()) {
      problems.push_back({file, number, "truncated line (no end of line), skipped"});
      return;
    }
    each(number, line);
  }
}

}  // namespace bootstrand::analyze
