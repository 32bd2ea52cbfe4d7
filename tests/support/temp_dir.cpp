#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace test {

TempDir::TempDir() : path_((std::filesystem::temp_directory_path() / "qvtest.XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + path_);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string& path) {
  if (!std::filesystem::is_regular_file(path)) {
    return {};
  }
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return std::move(bytes).str();
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
  file.close();
  if (!file) {
    throw std::runtime_error("write " + path);
  }
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

std::vector<std::string> names_in(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace test
