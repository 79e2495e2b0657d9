#include "hal/kernel/MountTable.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <libmount/libmount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

namespace halkernel {
namespace {

constexpr const char* kMountInfo = "/proc/self/mountinfo";
constexpr const char* kSwaps = "/proc/swaps";

using TablePointer = glib::Pointer<libmnt_table, mnt_unref_table>;
using IteratorPointer = glib::Pointer<libmnt_iter, mnt_free_iter>;
using FilePointer = glib::Pointer<std::FILE, std::fclose>;

int SkipLine(libmnt_table*, const char*, int) {
  return 1;
}

TablePointer NewTable() {
  TablePointer table(mnt_new_table());
  if (table) mnt_table_set_parser_errcb(table.get(), &SkipLine);
  return table;
}

std::string Text(const char* text) {
  return text != nullptr ? text : "";
}

bool HasOption(const char* options, const char* name) {
  return options != nullptr && mnt_optstr_get_option(options, name, nullptr, nullptr) == 0;
}

/// Anybody may mount with FUSE and choose the source; where a device is behind it, the kernel says
/// the device's number.
bool SourceCanBeTrusted(std::string_view type) {
  return type != "fuse" && !type.starts_with("fuse.");
}

MountEntry EntryOf(libmnt_fs* mounted) {
  const dev_t number = mnt_fs_get_devno(mounted);
  MountEntry entry;
  entry.number = {major(number), minor(number)};
  entry.source = Text(mnt_fs_get_source(mounted));
  entry.target = Text(mnt_fs_get_target(mounted));
  entry.readOnly = HasOption(mnt_fs_get_vfs_options(mounted), "ro") ||
                   HasOption(mnt_fs_get_fs_options(mounted), "ro") ||
                   HasOption(mnt_fs_get_fs_options(mounted), "emergency_ro");
  entry.namedBySource =
      entry.number.major == 0 && SourceCanBeTrusted(Text(mnt_fs_get_fstype(mounted)));
  return entry;
}

template <typename Visit>
void ForEach(libmnt_table* table, Visit visit) {
  const IteratorPointer iterator(mnt_new_iter(MNT_ITER_FORWARD));
  libmnt_fs* entry = nullptr;
  while (iterator && mnt_table_next_fs(table, iterator.get(), &entry) == 0) visit(entry);
}

/// Nothing when the table cannot be read.
std::optional<Mounts> ReadMounts() {
  const FilePointer text(std::fopen(kMountInfo, "re"));
  if (!text) return std::nullopt;
  std::optional<std::vector<MountEntry>> entries = ReadMountInfo(text.get());
  if (!entries) return std::nullopt;
  return Mounts{std::move(*entries), ReadSwaps(kSwaps)};
}

}  // namespace

std::optional<std::vector<MountEntry>> ReadMountInfo(std::FILE* text) {
  const TablePointer table = NewTable();
  if (!table || mnt_table_parse_stream(table.get(), text, kMountInfo) != 0) return std::nullopt;
  std::vector<MountEntry> entries;
  ForEach(table.get(), [&](libmnt_fs* mounted) { entries.push_back(EntryOf(mounted)); });
  return entries;
}

std::vector<std::string> ReadSwaps(const std::string& path) {
  std::vector<std::string> nodes;
  const TablePointer table = NewTable();
  if (!table || mnt_table_parse_swaps(table.get(), path.c_str()) != 0) return nodes;
  ForEach(table.get(), [&](libmnt_fs* swap) { nodes.push_back(Text(mnt_fs_get_source(swap))); });
  return nodes;
}

MountTable::~MountTable() {
  source_ = glib::EventSource();
  if (descriptor_ >= 0) close(descriptor_);
}

std::optional<std::string> MountTable::Start() {
  descriptor_ = open(kMountInfo, O_RDONLY | O_CLOEXEC);
  if (descriptor_ < 0)
    return std::string("cannot open ") + kMountInfo + ": " + std::strerror(errno);
  GSource* source =
      g_unix_fd_source_new(descriptor_, static_cast<GIOCondition>(G_IO_PRI | G_IO_ERR));
  g_source_set_callback(source, G_SOURCE_FUNC(&MountTable::OnReady), this, nullptr);
  source_ = glib::EventSource(source);
  Refresh();
  return std::nullopt;
}

bool MountTable::Refresh() {
  std::optional<Mounts> present = ReadMounts();
  if (!present || *present == mounts_) return false;
  mounts_ = std::move(*present);
  return true;
}

gboolean MountTable::OnReady(gint, GIOCondition, gpointer table) {
  auto* self = static_cast<MountTable*>(table);
  if (self->Refresh()) self->onChange_();
  return G_SOURCE_CONTINUE;
}

}  // namespace halkernel
