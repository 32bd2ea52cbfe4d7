// The man pages of section 3 agree with the headers, and their examples compile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "support/lines.h"
#include "support/temp_dir.h"

namespace {

// What a compiler can check in a page.
struct Page {
  std::string name;
  std::string includes;
  std::string prototypes;  // from SYNOPSIS, as assertions on the types in the header
  std::string examples;    // from EXAMPLES, without the blocks of output
  std::set<std::string> functions;
};

void PrintTo(const Page& page, std::ostream* out) { *out << page.name; }

// The arguments of a macro line: words, or strings in quotes.
std::vector<std::string> arguments_of(const std::string& line) {
  static const std::regex argument(R"re("([^"]*)"|(\S+))re");
  std::vector<std::string> all;
  for (std::sregex_iterator at(line.begin(), line.end(), argument), end; at != end; ++at) {
    all.push_back((*at)[1].matched ? (*at)[1] : (*at)[2]);
  }
  all.erase(all.begin());  // the macro's name
  return all;
}

std::string joined(const std::vector<std::string>& parts) {
  std::string all;
  for (const std::string& part : parts) {
    all += (all.empty() ? "" : ", ") + part;
  }
  return all;
}

// Reads SYNOPSIS: the includes, and an assertion for each .Ft with its .Fn or .Fo.
class Synopsis {
 public:
  explicit Synopsis(Page& page) : page_(page) {}

  void read(const std::string& line) {
    const std::string macro = line.substr(0, 3);
    if (macro == ".In") {
      page_.includes += "#include <" + arguments_of(line).front() + ">\n";
    } else if (macro == ".Ft") {
      type_ = line.substr(4);
    } else if (macro == ".Fn" || macro == ".Fo") {
      parameters_ = arguments_of(line);
      name_ = parameters_.front();
      parameters_.erase(parameters_.begin());
    } else if (macro == ".Fa") {
      parameters_.push_back(arguments_of(line).front());
    }
    if (macro == ".Fn" || macro == ".Fc") {
      end_function();
    }
  }

 private:
  // A preprocessor macro has no type, and so no assertion.
  void end_function() {
    if (!type_.empty()) {
      page_.prototypes += "static_assert(std::is_same<decltype(" + name_ + "), " + type_ + "(" +
                          joined(parameters_) + ")>::value);\n";
      page_.functions.insert(name_);
    }
    type_.clear();
  }

  Page& page_;
  std::string type_;
  std::string name_;
  std::vector<std::string> parameters_;
};

bool is_output(const std::string& block) { return block[0] == '[' || block[0] == '{'; }

Page read_page(const std::filesystem::path& path) {
  Page page{path.stem().string(), "", "", "", {}};
  Synopsis synopsis(page);
  std::string section;
  std::string block;
  bool in_block = false;
  for (const std::string& line : test::lines_of(test::read_file(path.string()))) {
    if (line.rfind(".Sh ", 0) == 0) {
      section = line.substr(4);
    } else if (section == "SYNOPSIS") {
      synopsis.read(line);
    } else if (section == "EXAMPLES" && line.rfind(".Bd ", 0) == 0) {
      in_block = true;
      block.clear();
    } else if (in_block && line == ".Ed") {
      in_block = false;
      page.examples += is_output(block) ? "" : block;
    } else if (in_block && line.rfind("#include", 0) == 0) {
      page.includes += line + "\n";
    } else if (in_block) {
      block += line + "\n";
    }
  }
  return page;
}

std::vector<Page> pages() {
  std::vector<Page> all;
  for (const auto& entry : std::filesystem::directory_iterator(QV_SOURCE_DIR "/docs/man")) {
    if (entry.path().extension() == ".3") {
      all.push_back(read_page(entry.path()));
    }
  }
  return all;
}

// Whether the compiler accepts `source` without a warning.
bool compiles(const std::string& compiler, const std::string& options, const std::string& source) {
  test::TempDir dir;
  test::write_file(dir.file("page"), source);
  const std::string command = compiler + " -Wall -Wextra -Wpedantic -Werror -fsyntax-only " +
                              options + " -I'" QV_SOURCE_DIR "/util/include' '" + dir.file("page") +
                              "'";
  return std::system(command.c_str()) == 0;
}

class ManPage : public testing::TestWithParam<Page> {};

// Only types are compared: the attribute for checking formats isn't part of a type.
TEST_P(ManPage, GivesTheTypesOfTheHeader) {
  const Page& page = GetParam();
  ASSERT_NE(page.includes, "");
  ASSERT_NE(page.prototypes, "");
  EXPECT_TRUE(compiles(QV_CXX_COMPILER, "-std=c++17 -Wno-ignored-attributes -x c++",
                       "#include <type_traits>\n" + page.includes + page.prototypes))
      << page.prototypes;
}

// The function around the examples declares what they assume: a module and a size.
TEST_P(ManPage, HasExamplesThatCompile) {
  const Page& page = GetParam();
  const bool makes_module = page.examples.find("*module =") != std::string::npos;
  const std::string given = makes_module ? "void* unused, int size" : "void* module, int size";
  const std::string source = "#include <stddef.h>\n#include <unistd.h>\n" + page.includes +
                             "int example(" + given + ") {\n" + page.examples + "return 0;\n}\n";
  EXPECT_TRUE(compiles(QV_C_COMPILER, "-std=c11 -Wno-unused-parameter -x c", source)) << source;
}

INSTANTIATE_TEST_SUITE_P(Section3, ManPage, testing::ValuesIn(pages()),
                         [](const auto& page) { return page.param.name; });

TEST(ManPages, HaveEveryExportedCFunction) {
  std::set<std::string> described;
  bool has_examples = false;
  for (const Page& page : pages()) {
    described.insert(page.functions.begin(), page.functions.end());
    has_examples = has_examples || !page.examples.empty();
  }
  EXPECT_TRUE(has_examples);
  for (const std::string& symbol :
       test::lines_of(test::read_file(QV_SOURCE_DIR "/util/QVUtil.symbols"))) {
    if (symbol.rfind("qv_", 0) == 0 && symbol.find('(') == std::string::npos) {
      EXPECT_EQ(described.count(symbol), 1u) << symbol;
    }
  }
}

}  // namespace
