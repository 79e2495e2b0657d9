#include "sharing/DottedAddress.h"

#include <arpa/inet.h>

std::string Dotted(in_addr address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}
