#pragma once

#include <gio/gio.h>

#include <memory>
#include <utility>

namespace tools {

struct GObjectUnref {
  void operator()(void* object) const { g_object_unref(object); }
};

/// Owns one reference to a GObject.
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

/// Owns a source of the default main context and takes it out when it is destroyed or replaced.
class EventSource {
 public:
  EventSource() = default;

  /// Takes over a source that is not attached yet, and attaches it.
  explicit EventSource(GSource* source) : source_(source) { g_source_attach(source_, nullptr); }

  EventSource(EventSource&& other) noexcept : source_(std::exchange(other.source_, nullptr)) {}
  EventSource& operator=(EventSource&& other) noexcept {
    std::swap(source_, other.source_);
    return *this;
  }
  ~EventSource() {
    if (source_ == nullptr) return;
    g_source_destroy(source_);
    g_source_unref(source_);
  }

 private:
  GSource* source_ = nullptr;
};

}  // namespace tools
