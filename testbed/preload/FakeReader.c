// Stands for the device nodes of a memory-card reader in the program that it is preloaded into.
//
// A device node "/dev/sda1" is a reader when the directory that FAKE_READER names has a file
// "sda1". Each line of that file is a word and its value; what is not given is 0:
//
//   open-error N      opening fails with this errno
//   descriptor 0      opening gives descriptor 0
//   ioctl-error N     the request fails with this errno
//   ioctl-result N    the request returns this
//   driver-status N, host-status N, status N    what the request is filled with
//   answer HEX        the first bytes of the answer; the rest of its 512 bytes are 0xEE
//
// The file "record" in that directory gets a line for each opening, request and closing: a word,
// the device node, and KEY=VALUE for every field of the request as it came. All other calls are
// passed on.

// A 32-bit program may use either form of these calls, so the headers must not rename them.
#undef _FILE_OFFSET_BITS
#undef _TIME_BITS
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <scsi/sg.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

enum { kDescriptors = 1024, kPathBytes = 256, kAnswerBytes = 512, kFiller = 0xEE };

typedef struct {
  int openError;
  bool standardInput;
  int ioctlError;
  int ioctlResult;
  unsigned char driverStatus;
  unsigned char hostStatus;
  unsigned char status;
  unsigned char answer[kAnswerBytes];
} tScript;

/// The device node behind each descriptor, empty where it is none of ours.
static char devices[kDescriptors][kPathBytes];

static int PassOpen(const char* path, int flags, mode_t mode) {
  int (*next)(const char*, int, ...) = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, "open");
  return next(path, flags, mode);
}

static int PassClose(int descriptor) {
  int (*next)(int) = (int (*)(int))dlsym(RTLD_NEXT, "close");
  return next(descriptor);
}

static bool IsReader(int descriptor) {
  return descriptor >= 0 && descriptor < kDescriptors && devices[descriptor][0] != '\0';
}

static bool Place(char* place, const char* name) {
  const char* directory = getenv("FAKE_READER");
  return directory != NULL && strlen(name) < kPathBytes / 2 &&
         snprintf(place, kPathBytes, "%s/%s", directory, name) < kPathBytes;
}

static void Record(const char* format, ...) {
  char place[kPathBytes];
  if (!Place(place, "record")) return;
  const int file = PassOpen(place, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  va_list arguments;
  va_start(arguments, format);
  vdprintf(file, format, arguments);
  va_end(arguments);
  PassClose(file);
}

static void ReadAnswer(const char* digits, unsigned char* answer) {
  for (int i = 0; i < kAnswerBytes; ++i) {
    unsigned value = kFiller;
    if (*digits != '\0' && sscanf(digits, "%2x", &value) == 1) digits += 2;
    answer[i] = (unsigned char)value;
  }
}

/// False when the device node is none of ours.
static bool ReadScript(const char* device, tScript* script) {
  char name[kPathBytes];
  char place[kPathBytes];
  if (strncmp(device, "/dev/", 5) != 0 || strlen(device) >= kPathBytes) return false;
  strcpy(name, device);
  if (!Place(place, basename(name))) return false;
  const int descriptor = PassOpen(place, O_RDONLY | O_CLOEXEC, 0);
  if (descriptor < 0) return false;
  memset(script, 0, sizeof *script);
  ReadAnswer("", script->answer);
  char text[4096] = "";
  const ssize_t length = read(descriptor, text, sizeof text - 1);
  PassClose(descriptor);
  if (length < 0) return false;
  for (char* rest = text; *rest != '\0';) {
    char* line = strsep(&rest, "\n");
    char word[32] = "";
    char value[2 * kAnswerBytes + 1] = "";
    sscanf(line, "%31s %1024s", word, value);
    const int number = atoi(value);
    if (strcmp(word, "open-error") == 0) script->openError = number;
    if (strcmp(word, "descriptor") == 0) script->standardInput = number == 0;
    if (strcmp(word, "ioctl-error") == 0) script->ioctlError = number;
    if (strcmp(word, "ioctl-result") == 0) script->ioctlResult = number;
    if (strcmp(word, "driver-status") == 0) script->driverStatus = (unsigned char)number;
    if (strcmp(word, "host-status") == 0) script->hostStatus = (unsigned char)number;
    if (strcmp(word, "status") == 0) script->status = (unsigned char)number;
    if (strcmp(word, "answer") == 0) ReadAnswer(value, script->answer);
    if (rest == NULL) break;
  }
  return true;
}

static int OpenDevice(const char* path, int flags, mode_t mode) {
  tScript script;
  if (!ReadScript(path, &script)) return PassOpen(path, flags, mode);
  Record("open %s access=%d nonblock=%d cloexec=%d other=%d\n", path, flags & O_ACCMODE,
         (flags & O_NONBLOCK) != 0, (flags & O_CLOEXEC) != 0,
         flags & ~(O_ACCMODE | O_NONBLOCK | O_CLOEXEC | O_LARGEFILE));
  if (script.openError != 0) {
    errno = script.openError;
    return -1;
  }
  int descriptor = PassOpen("/dev/null", flags, mode);
  if (script.standardInput) {
    dup3(descriptor, STDIN_FILENO, flags & O_CLOEXEC);
    PassClose(descriptor);
    descriptor = STDIN_FILENO;
  }
  if (descriptor >= 0 && descriptor < kDescriptors) strcpy(devices[descriptor], path);
  return descriptor;
}

static void RecordBytes(const char* name, const unsigned char* bytes, size_t count) {
  Record(" %s=", name);
  for (size_t i = 0; bytes != NULL && i < count; ++i) Record("%02x", bytes[i]);
}

static void RecordRequest(int descriptor, const sg_io_hdr_t* request) {
  Record("request %s cloexec=%d", devices[descriptor],
         (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0);
  Record(" interface_id=%c dxfer_direction=%d cmd_len=%d mx_sb_len=%d iovec_count=%d dxfer_len=%u",
         request->interface_id, request->dxfer_direction, request->cmd_len, request->mx_sb_len,
         request->iovec_count, request->dxfer_len);
  RecordBytes("cmdp", request->cmdp, request->cmd_len);
  RecordBytes("sbp", request->sbp, request->mx_sb_len);
  Record(" dxferp=%s timeout=%u flags=%u pack_id=%d usr_ptr=%s",
         request->dxferp != NULL ? "set" : "null", request->timeout, request->flags,
         request->pack_id, request->usr_ptr != NULL ? "set" : "null");
  Record(
      " status=%d masked_status=%d msg_status=%d sb_len_wr=%d host_status=%d driver_status=%d"
      " resid=%d duration=%u info=%u\n",
      request->status, request->masked_status, request->msg_status, request->sb_len_wr,
      request->host_status, request->driver_status, request->resid, request->duration,
      request->info);
}

static int Answer(int descriptor, sg_io_hdr_t* request) {
  RecordRequest(descriptor, request);
  tScript script;
  if (!ReadScript(devices[descriptor], &script)) script.ioctlError = EIO;
  if (script.ioctlError != 0) {
    errno = script.ioctlError;
    return -1;
  }
  request->driver_status = script.driverStatus;
  request->host_status = script.hostStatus;
  request->status = script.status;
  const size_t length =
      request->dxfer_len < sizeof script.answer ? request->dxfer_len : sizeof script.answer;
  memcpy(request->dxferp, script.answer, length);
  return script.ioctlResult;
}

static mode_t ModeOf(int flags, va_list arguments) {
  const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  return creates ? va_arg(arguments, mode_t) : 0;
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeOf(flags, arguments);
  va_end(arguments);
  return OpenDevice(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeOf(flags, arguments);
  va_end(arguments);
  return OpenDevice(path, flags | O_LARGEFILE, mode);
}

int __open_2(const char* path, int flags) {
  return OpenDevice(path, flags, 0);
}

int __open64_2(const char* path, int flags) {
  return OpenDevice(path, flags | O_LARGEFILE, 0);
}

static int Request(int descriptor, unsigned long request, void* argument) {
  if (IsReader(descriptor)) {
    if (request == SG_IO) return Answer(descriptor, argument);
    Record("other-request %s number=%lu\n", devices[descriptor], request);
  }
  int (*next)(int, unsigned long, ...) =
      (int (*)(int, unsigned long, ...))dlsym(RTLD_NEXT, "ioctl");
  return next(descriptor, request, argument);
}

int ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return Request(descriptor, request, argument);
}

int __ioctl_time64(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return Request(descriptor, request, argument);
}

int close(int descriptor) {
  if (IsReader(descriptor)) {
    Record("close %s\n", devices[descriptor]);
    devices[descriptor][0] = '\0';
  }
  return PassClose(descriptor);
}
