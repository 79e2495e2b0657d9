#include "hal/kernel/StateFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "glib/Handles.h"
#include "hal/kernel/FileContents.h"
#include "hal/kernel/Log.h"

namespace halkernel {
namespace {

constexpr int kVersion = 1;
constexpr off_t kMaxFileBytes = off_t{8} * 1024 * 1024;
constexpr const char* kHead = "state";

using KeyFilePointer = glib::Pointer<GKeyFile, g_key_file_unref>;

/// Bytes of any kind as a text that a key file can hold.
std::string Escaped(const std::string& text) {
  const glib::CharPointer escaped(g_strescape(text.c_str(), nullptr));
  return escaped.get();
}

std::string Unescaped(const std::string& text) {
  const glib::CharPointer bytes(g_strcompress(text.c_str()));
  return bytes.get();
}

std::string GroupOf(std::size_t number) {
  return "object " + std::to_string(number);
}

/// Reads values and remembers the first that is missing or invalid.
class Reader {
 public:
  explicit Reader(GKeyFile* file) : file_(file) {}

  void SetGroup(std::string group) { group_ = std::move(group); }
  bool Has(const char* name) const {
    return g_key_file_has_key(file_, group_.c_str(), name, nullptr) != FALSE;
  }

  std::string Text(const char* name) {
    const glib::CharPointer value(g_key_file_get_string(file_, group_.c_str(), name, nullptr));
    Require(value != nullptr, name);
    // Half an escape at the end would be read past.
    if (value == nullptr || EndsInBackslash(value.get())) {
      Require(value == nullptr, name);
      return {};
    }
    return Unescaped(value.get());
  }

  bool Flag(const char* name) {
    glib::ErrorHolder error;
    const bool value = g_key_file_get_boolean(file_, group_.c_str(), name, error.Out()) != FALSE;
    Require(error.Text()[0] == '\0', name);
    return value;
  }

  int Number(const char* name) {
    glib::ErrorHolder error;
    const int value = g_key_file_get_integer(file_, group_.c_str(), name, error.Out());
    Require(error.Text()[0] == '\0', name);
    return value;
  }

  std::vector<std::string> List(const char* name) {
    gsize count = 0;
    const glib::Pointer<gchar*, g_strfreev> values(
        g_key_file_get_string_list(file_, group_.c_str(), name, &count, nullptr));
    Require(values != nullptr, name);
    if (!values) return {};
    std::vector<std::string> texts;
    for (gsize at = 0; at < count; ++at) texts.emplace_back(values.get()[at]);
    return texts;
  }

  void Require(bool condition, const std::string& what) {
    if (!condition && fault_.empty())
      fault_ = "[" + group_ + "] " + what + " is missing or invalid";
  }
  const std::string& Fault() const { return fault_; }

 private:
  static bool EndsInBackslash(const char* text) {
    const std::size_t length = std::strlen(text);
    std::size_t backslashes = 0;
    while (backslashes < length && text[length - 1 - backslashes] == '\\') ++backslashes;
    return backslashes % 2 != 0;
  }

  GKeyFile* file_;
  std::string group_;
  std::string fault_;
};

bool IsPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

/// What can stand behind the prefix of an object's path.
bool IsObjectName(const std::string& name) {
  const bool plain = std::all_of(name.begin(), name.end(),
                                 [](char c) { return g_ascii_isalnum(c) || c == '_' || c == '/'; });
  return plain && !name.empty() && name != "computer" && name.front() != '/' &&
         name.back() != '/' && name.find("//") == std::string::npos;
}

bool IsDirectoryName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

KeptObject ReadObject(Reader& reader) {
  KeptObject object;
  object.key = reader.Text("key");
  object.parent = reader.Text("parent");
  object.name = reader.Text("name");
  reader.Require(IsPrintable(object.key) && !object.key.empty(), "key");
  reader.Require(IsObjectName(object.name), "name");
  if (!reader.Has("node")) return object;
  object.node = reader.Text("node");
  object.mount = {reader.Text("place"), reader.Flag("mounted"), reader.Flag("read-only")};
  reader.Require(object.node.starts_with("/dev/"), "node");
  reader.Require(object.mount.mounted == object.mount.place.starts_with('/'), "place");
  return object;
}

std::vector<KeptObject> ReadObjects(Reader& reader) {
  std::vector<KeptObject> objects;
  std::set<std::string> keys = {""};
  std::set<std::string> names;
  while (reader.Fault().empty()) {
    reader.SetGroup(GroupOf(objects.size()));
    if (!reader.Has("key")) break;
    KeptObject object = ReadObject(reader);
    reader.Require(keys.contains(object.parent), "parent");
    reader.Require(keys.insert(object.key).second, "key");
    reader.Require(names.insert(object.name).second, "name");
    objects.push_back(std::move(object));
  }
  return objects;
}

void WriteObject(GKeyFile* file, const std::string& group, const KeptObject& object) {
  const auto set = [&](const char* name, const std::string& value) {
    g_key_file_set_string(file, group.c_str(), name, Escaped(value).c_str());
  };
  set("key", object.key);
  set("parent", object.parent);
  set("name", object.name);
  if (object.node.empty()) return;
  set("node", object.node);
  g_key_file_set_boolean(file, group.c_str(), "mounted", object.mount.mounted);
  g_key_file_set_boolean(file, group.c_str(), "read-only", object.mount.readOnly);
  set("place", object.mount.place);
}

}  // namespace

std::string FormatState(const State& state) {
  const KeyFilePointer file(g_key_file_new());
  g_key_file_set_integer(file.get(), kHead, "version", kVersion);
  std::vector<std::string> directories;
  for (const std::string& directory : state.directories) directories.push_back(Escaped(directory));
  std::vector<const gchar*> list;
  list.reserve(directories.size());
  for (const std::string& directory : directories) list.push_back(directory.c_str());
  g_key_file_set_string_list(file.get(), kHead, "directories", list.data(), list.size());
  for (std::size_t number = 0; number < state.objects.size(); ++number) {
    WriteObject(file.get(), GroupOf(number), state.objects[number]);
  }
  gsize length = 0;
  const glib::CharPointer content(g_key_file_to_data(file.get(), &length, nullptr));
  return {content.get(), length};
}

ParsedState ParseState(const std::string& content) {
  const KeyFilePointer file(g_key_file_new());
  glib::ErrorHolder error;
  if (!g_key_file_load_from_data(file.get(), content.c_str(), content.size(), G_KEY_FILE_NONE,
                                 error.Out())) {
    return {std::nullopt, error.Text()};
  }
  Reader reader(file.get());
  reader.SetGroup(kHead);
  reader.Require(reader.Number("version") == kVersion, "version");
  State state;
  for (const std::string& escaped : reader.List("directories")) {
    state.directories.push_back(Unescaped(escaped));
    reader.Require(IsDirectoryName(state.directories.back()), "directories");
  }
  state.objects = ReadObjects(reader);
  if (!reader.Fault().empty()) return {std::nullopt, reader.Fault()};
  return {std::move(state), ""};
}

std::optional<State> StateFile::Read() const {
  struct stat status {};
  if (stat(path_.c_str(), &status) != 0 && errno == ENOENT) return std::nullopt;
  std::string fault = "it is not a regular file, or it is too large";
  if (S_ISREG(status.st_mode) && status.st_size <= kMaxFileBytes) {
    glib::ErrorHolder error;
    const std::optional<std::string> content = FileContents(path_, error);
    ParsedState parsed;
    if (content) parsed = ParseState(*content);
    if (parsed.state) return std::move(parsed.state);
    fault = content ? parsed.fault : error.Text();
  }
  Log(LOG_WARNING, path_ + " cannot be used, so this is a first start: " + fault);
  return std::nullopt;
}

void StateFile::Write(const State& state) {
  std::string content = FormatState(state);
  if (content == written_) return;
  glib::ErrorHolder error;
  const bool done =
      g_file_set_contents_full(path_.c_str(), content.data(), static_cast<gssize>(content.size()),
                               G_FILE_SET_CONTENTS_CONSISTENT, 0600, error.Out());
  if (done) {
    written_ = std::move(content);
  } else if (!failing_) {
    Log(LOG_ERR,
        path_ + " cannot be written, a restart will not know what is there: " + error.Text());
  }
  failing_ = !done;
}

}  // namespace halkernel
