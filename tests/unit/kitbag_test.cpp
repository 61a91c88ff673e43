// The command-string parser. The dispatcher that runs a command executable is
// tested through the command executor.
#include "platform/kitbag/option_parser.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

using namespace Kitbag::AutoCli;

// A parse as one line: "-" when there is nothing to run, else each path word and
// each option as "[word]" and "--name=[value]", then each error as "! error".
std::string Parsed(OptionParser& parser, const std::string& text) {
  if (parser.ParseString(text)) return "-";
  std::string parsed;
  auto add = [&parsed](const std::string& piece) { parsed += (parsed.empty() ? "" : " ") + piece; };
  for (const std::string& word : parser.GetCommandPath()) add("[" + word + "]");
  for (const auto& [name, value] : parser.GetCommandParameters()) add("--" + name + "=[" + value + "]");
  for (const std::string& error : parser.GetParseErrors()) add("! " + error);
  return parsed;
}

TEST(OptionParser, SplitsEachCommandStringIntoPathOptionsAndErrors) {
  const std::pair<std::string, std::string> cases[] = {
      {" \t\n ", "-"}, {"  # 'unbalanced \" ignored", "-"}, {"network up # not 'a word", "[network] [up]"},
      {"a#b '#c' --x=#1", "[a#b] [#c] --x=[#1]"}, {R"(c --v 'a "b" \c')", R"([c] --v=[a "b" \c])"},
      {R"(c --v "say \"hi\" \\ \n")", R"([c] --v=[say "hi" \ \n])"}, {R"(c --v a\ b\'c)", "[c] --v=[a b'c]"},
      {R"(c --v pre'mid'"post" --e '')", "[c] --v=[premidpost] --e=[]"},
      {"net set --ip 10.0.0.1 --mask=255.0.0.0 --dhcp --count -1 --k=a=b --e= --f",
       "[net] [set] --ip=[10.0.0.1] --mask=[255.0.0.0] --dhcp=[true] --count=[-1] --k=[a=b] --e=[] --f=[true]"},
      {"c --a 1 --a 2", "[c] --a=[1] --a=[2]"},  // a repeated option is kept
      {"c --v 'abc", "! Unbalanced single quote"}, {R"(c --v "abc\")", "! Unbalanced double quote"},
      {R"(c --v \)", "! Backslash at the end of the command string"},
      {"--ip 1 net", "--ip=[1] ! Missing command path before option '--ip' ! Unexpected word 'net' after the options"},
      {"net -- x --=y", "[net] ! Empty option name in '--' ! Empty option name in '--=y'"},
      {"a/b . .. '' ok", "[a/b] [.] [..] [] [ok] ! Invalid command word 'a/b' ! Invalid command word '.' "
                         "! Invalid command word '..' ! Invalid command word ''"},
  };
  OptionParser parser;
  for (const auto& [text, parsed] : cases) {
    parser.ParseString("--stale 'state");  // every parse starts afresh
    EXPECT_EQ(Parsed(parser, text), parsed) << text;
  }
}

}  // namespace
}  // namespace bootstrand::testing
