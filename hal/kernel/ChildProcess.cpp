#include "hal/kernel/ChildProcess.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "glib/Handles.h"

namespace halkernel {
namespace {

constexpr std::size_t kKeptBytes = 4096;
constexpr int kReadsAtOnce = 16;

/// What a program writes. Lives until the last writer has closed its end.
class Output {
 public:
  explicit Output(int descriptor) : descriptor_(descriptor) {}
  ~Output() { close(descriptor_); }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  /// Reads what is there, but not for ever. False at the end.
  bool ReadSome();
  const std::string& Kept() const { return kept_; }

 private:
  const int descriptor_;
  std::string kept_;
};

using OutputPointer = std::shared_ptr<Output>;

bool Output::ReadSome() {
  std::array<char, 4096> buffer;
  for (int reads = 0; reads < kReadsAtOnce; ++reads) {
    const ssize_t count = read(descriptor_, buffer.data(), buffer.size());
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    const std::size_t room = kKeptBytes - kept_.size();
    kept_.append(buffer.data(), std::min(room, static_cast<std::size_t>(count)));
  }
  return true;
}

gboolean OnOutput(gint, GIOCondition, gpointer data) {
  return (*static_cast<OutputPointer*>(data))->ReadSome() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

/// A started program, until it has ended.
struct Child {
  OutputPointer output;
  std::function<void(const ChildResult&)> ended;
  glib::EventSource limit;
};

gboolean OnLimit(gpointer late) {
  (*static_cast<std::function<void()>*>(late))();
  return G_SOURCE_REMOVE;
}

glib::EventSource StartLimit(std::chrono::milliseconds limit, std::function<void()> late) {
  GSource* source = g_timeout_source_new(static_cast<guint>(limit.count()));
  g_source_set_callback(source, &OnLimit, new std::function<void()>(std::move(late)),
                        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
  return glib::EventSource(source);
}

void OnEnded(GObject* process, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<Child> child(static_cast<Child*>(data));
  child->limit = glib::EventSource();
  const bool succeeded = g_subprocess_wait_check_finish(G_SUBPROCESS(process), result, nullptr);
  child->output->ReadSome();
  child->ended({succeeded, child->output->Kept()});
}

/// Runs `ended` on the main loop and not before the caller has returned.
void FailLater(std::string reason, std::function<void(const ChildResult&)> ended) {
  using Later = std::function<void()>;
  g_idle_add_full(
      G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        (*static_cast<Later*>(data))();
        return G_SOURCE_REMOVE;
      },
      new Later([reason = std::move(reason), ended = std::move(ended)] {
        ended({false, reason});
      }),
      [](gpointer data) { delete static_cast<Later*>(data); });
}

}  // namespace

void RunChild(const std::vector<std::string>& words, std::chrono::milliseconds limit,
              std::function<void()> late, std::function<void(const ChildResult&)> ended) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    FailLater(std::string("cannot make a pipe: ") + std::strerror(errno), std::move(ended));
    return;
  }
  const auto output = std::make_shared<Output>(ends[0]);
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  const glib::ObjectPointer<GSubprocessLauncher> launcher(
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
  // The launcher owns the writing end and its copy.
  g_subprocess_launcher_take_stdout_fd(launcher.get(), ends[1]);
  g_subprocess_launcher_take_stderr_fd(launcher.get(), fcntl(ends[1], F_DUPFD_CLOEXEC, 0));
  g_subprocess_launcher_setenv(launcher.get(), "LC_ALL", "C", TRUE);
  std::vector<const char*> arguments;
  for (const std::string& word : words) arguments.push_back(word.c_str());
  arguments.push_back(nullptr);
  glib::ErrorHolder error;
  const glib::ObjectPointer<GSubprocess> process(
      g_subprocess_launcher_spawnv(launcher.get(), arguments.data(), error.Out()));
  g_subprocess_launcher_close(launcher.get());
  if (!process) {
    FailLater(error.Text(), std::move(ended));
    return;
  }
  g_unix_fd_add_full(G_PRIORITY_DEFAULT, ends[0],
                     static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &OnOutput,
                     new OutputPointer(output),
                     [](gpointer data) { delete static_cast<OutputPointer*>(data); });
  // GLib keeps the process itself until the wait is over.
  g_subprocess_wait_check_async(
      process.get(), nullptr, &OnEnded,
      new Child{output, std::move(ended), StartLimit(limit, std::move(late))});
}

}  // namespace halkernel
