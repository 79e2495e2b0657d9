// voldrake-shares: shows what units share on the network, and announces or withdraws a share.

#include <glib.h>

#include <cstdlib>
#include <string_view>

#include "program/Output.h"
#include "tools/shares/Announcement.h"
#include "tools/shares/ListShares.h"
#include "tools/shares/SendAnnouncement.h"

int main(int argc, char* argv[]) {
  g_set_prgname("voldrake-shares");
  if (argc < 2 || argv[1][0] == '-') return tools::ListShares(argc, argv);
  const std::string_view command = argv[1];
  if (command == "list") return tools::ListShares(argc - 1, argv + 1);
  if (command == "announce") {
    return tools::SendAnnouncement(tools::kTypeAnnounce, argc - 1, argv + 1);
  }
  if (command == "withdraw") {
    return tools::SendAnnouncement(tools::kTypeWithdraw, argc - 1, argv + 1);
  }
  program::Complain("unknown command: " + std::string(command));
  return EXIT_FAILURE;
}
