// Builds the daemon's objects in order, runs the main loop and tears down. After start-up
// everything here runs on the main thread; SIGUSR1 and SIGUSR2 are ignored until their sources
// stand, SIGTERM and SIGHUP keep their default action until then. SIGPIPE never has an effect.

#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/CommandLine.h"
#include "frame/ConfigManager.h"
#include "frame/FileWait.h"
#include "frame/Log.h"
#include "frame/Platform.h"
#include "frame/Settings.h"
#include "frame/Text.h"
#include "storage/tHalManager.h"
#include "volumes/tVoldrake.h"

namespace {

struct tMainLoopRelease {
  void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

std::unique_ptr<GMainLoop, tMainLoopRelease> gMainLoop;
std::unique_ptr<ConfigManager> gConfigManager;
std::unique_ptr<tVoldrake> gVoldrake;

/// Opens those of the standard streams that the daemon was started without, so that nothing else
/// gets their descriptors and what is written to them by others does not end up in it.
void OpenMissingStandardStreams() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDWR);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) close(descriptor);
}

int Answer(tQuestion question) {
  const char* const text =
      question == tQuestion::kHelp ? kHelpText : "voldrake " VOLDRAKE_VERSION "\n";
  const bool isTold = std::fputs(text, stdout) >= 0 && std::fflush(stdout) == 0;
  return isTold ? EXIT_SUCCESS : EXIT_FAILURE;
}

void LogVersion() {
  Log("Version - " VOLDRAKE_VERSION " Client port - " + std::to_string(gClientPort), kLogInfo);
}

gboolean HandleSigTerm(gpointer) {
  Log("Handling SIGTERM", kLogInfo);
  g_main_loop_quit(gMainLoop.get());
  return TRUE;
}

gboolean HandleSigHup(gpointer) {
  Log("Starting new log file", kLogInfo);
  LogVersion();
  return TRUE;
}

gboolean HandleSigUsr1(gpointer voldrake) {
  return voldrake != nullptr && static_cast<tVoldrake*>(voldrake)->SignalAction(SIGUSR1);
}

gboolean HandleSigUsr2(gpointer voldrake) {
  return voldrake != nullptr && static_cast<tVoldrake*>(voldrake)->SignalAction(SIGUSR2);
}

/// Lines that cannot be written are dropped without a word, so this is the only one about it. Told
/// where the command line's other faults are, while standard error is still there.
void CheckLogFile(const CommandLine& line) {
  // A daemon that detaches goes to the root directory.
  const bool fromRoot = line.daemonise && !line.logFile.starts_with('/');
  const int error = line.logFile.empty() ? 0 : LogFileError((fromRoot ? "/" : "") + line.logFile);
  if (error == 0) return;
  std::fprintf(stderr, "Nothing is logged to %s: %s\n", Printable(line.logFile).c_str(),
               strerror(error));
}

void ApplySettings(const CommandLine& line) {
  gClientPort = line.clientPort;
  gVfatMountOpts = line.vfatMountOpts;
  gNfsRoot = line.nfsRoot;
  SetLogFile(line.logFile);
  if (line.logLevel) SetLogLevel(*line.logLevel);
}

void StartUp(const CommandLine& line, int mmcHostIndex, const std::string& platformFamily) {
  gMainLoop.reset(g_main_loop_new(nullptr, FALSE));
  gConfigManager = std::make_unique<ConfigManager>();
  tHalManager* const halManager = tHalManager::getInstance();
  halManager->initHal();
  gVoldrake = std::make_unique<tVoldrake>(halManager, gConfigManager.get(), gClientPort,
                                          line.internalSharePath, line.peerMac, line.contentIdFile,
                                          line.serialNumberFile, platformFamily, mmcHostIndex);
  halManager->InstallCallback(gVoldrake.get());
  g_unix_signal_add(SIGTERM, HandleSigTerm, gVoldrake.get());
  g_unix_signal_add(SIGHUP, HandleSigHup, gVoldrake.get());
  g_unix_signal_add(SIGUSR1, HandleSigUsr1, gVoldrake.get());
  g_unix_signal_add(SIGUSR2, HandleSigUsr2, gVoldrake.get());
}

void ShutDown() {
  Log("Exiting", kLogInfo);
  gVoldrake->Stop();
  tHalManager::getInstance()->freeHal();
  gConfigManager.reset();
  gVoldrake.reset();
  gMainLoop.reset();
}

}  // namespace

int main(int argc, char* argv[]) {
  OpenMissingStandardStreams();
  signal(SIGUSR1, SIG_IGN);
  signal(SIGUSR2, SIG_IGN);
  // A log or standard error whose reader has gone must not end the daemon. What is ignored stays
  // ignored in the commands that it runs; what is handled is the default again there.
  signal(SIGPIPE, [](int) {});
  // Whoever starts the daemon may have SIGCHLD ignored, which would hide how commands end.
  signal(SIGCHLD, SIG_DFL);
  OpenSysLog();
  SetLogLevel(kLogInfo);

  std::string error;
  const std::optional<CommandLine> line = ParseCommandLine(argc, argv, error);
  if (line && line->question != tQuestion::kNone) return Answer(line->question);
  if (!line) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return EXIT_FAILURE;
  }
  CheckLogFile(*line);
  ApplySettings(*line);
  const int mmcHostIndex = MmcHostIndex(kMmcHostDirectory);
  const std::string platformFamily = PlatformFamily(kPlatformFamilyFile);

  if (line->daemonise && daemon(0, 0) != 0) return EXIT_FAILURE;
  Log("Voldrake startup", kLogInfo);
  LogVersion();
  for (const std::string& warning : line->warnings) Log(warning, kLogWarning);
  if (line->fileTimeoutSeconds > 0) {
    WaitForFiles(line->filesToWaitFor, std::chrono::seconds(line->fileTimeoutSeconds));
  }
  WarnOfMissingFiles(line->filesToWaitFor);

  StartUp(*line, mmcHostIndex, platformFamily);
  g_main_loop_run(gMainLoop.get());
  ShutDown();
  return EXIT_SUCCESS;
}
