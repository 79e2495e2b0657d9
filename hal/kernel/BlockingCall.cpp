#include "hal/kernel/BlockingCall.h"

#include <gio/gio.h>

#include <memory>
#include <utility>

#include "glib/Handles.h"

namespace halkernel {
namespace {

struct Call {
  std::function<int()> work;
  std::function<void(int)> done;
};

void Run(GTask* task, gpointer, gpointer data, GCancellable*) {
  g_task_return_int(task, static_cast<Call*>(data)->work());
}

void OnDone(GObject*, GAsyncResult* result, gpointer) {
  auto* const task = G_TASK(result);
  const auto* call = static_cast<Call*>(g_task_get_task_data(task));
  call->done(static_cast<int>(g_task_propagate_int(task, nullptr)));
}

}  // namespace

void CallInThread(std::function<int()> work, std::function<void(int)> done) {
  const glib::ObjectPointer<GTask> task(g_task_new(nullptr, nullptr, &OnDone, nullptr));
  g_task_set_task_data(task.get(), new Call{std::move(work), std::move(done)},
                       [](gpointer data) { delete static_cast<Call*>(data); });
  g_task_run_in_thread(task.get(), &Run);
}

}  // namespace halkernel
