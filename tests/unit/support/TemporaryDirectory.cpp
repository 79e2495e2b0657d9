#include "support/TemporaryDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

tTemporaryDirectory::tTemporaryDirectory()
    : m_Path((fs::temp_directory_path() / "voldrake-test-XXXXXX").string()) {
  if (mkdtemp(m_Path.data()) == nullptr) throw std::runtime_error("mkdtemp " + m_Path);
}

tTemporaryDirectory::~tTemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(m_Path, ignored);
}

std::string tTemporaryDirectory::Path(std::string_view name) const {
  return name.empty() ? m_Path : m_Path + "/" + std::string(name);
}

std::string tTemporaryDirectory::Write(std::string_view name, std::string_view content) const {
  const std::string path = Path(name);
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
  return path;
}

std::string tTemporaryDirectory::MakeDirectory(std::string_view name) const {
  fs::create_directories(Path(name));
  return Path(name);
}

std::string tTemporaryDirectory::Link(std::string_view name, const std::string& target) const {
  fs::create_symlink(target, Path(name));
  return Path(name);
}

bool tTemporaryDirectory::Holds(std::string_view name) const {
  return fs::exists(fs::symlink_status(Path(name)));
}
