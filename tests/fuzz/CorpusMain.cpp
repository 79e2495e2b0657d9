// Runs a fuzz target on every file of the directories that are its arguments, without a fuzzer:
// what was found once stays found, with every compiler.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

std::vector<std::filesystem::path> Files(int argc, char* argv[]) {
  std::vector<std::filesystem::path> files;
  for (int argument = 1; argument < argc; ++argument) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[argument])) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  const std::vector<std::filesystem::path> files = Files(argc, argv);
  for (const std::filesystem::path& file : files) {
    std::printf("%s\n", file.filename().c_str());
    std::fflush(stdout);  // the last line names what ends the program
    std::ifstream stream(file, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(stream), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  }
  std::printf("%zu inputs\n", files.size());
  return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
