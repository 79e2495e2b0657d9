/* The floor for an announcement: the system calls that hearing one takes, in a bare loop. Receives,
 * lists the interfaces' addresses and asks for the sender's hardware address, until it is killed.
 *
 *   bare-receiver
 */

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

enum { DATAGRAM_BYTES = 1500, MAX_INTERFACES = 16 };

static int open_socket(void) {
  const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(receiver, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(receiver, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
  struct sockaddr_in any = {0};
  any.sin_family = AF_INET;
  any.sin_port = htons(10000);
  struct ip_mreq membership = {{inet_addr("224.1.1.1")}, {INADDR_ANY}};
  if (bind(receiver, (struct sockaddr*)&any, sizeof any) != 0 ||
      setsockopt(receiver, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
    return -1;
  }
  return receiver;
}

static void list_interfaces(void) {
  struct ifreq records[MAX_INTERFACES];
  struct ifconf list = {0};
  const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ioctl(any, SIOCGIFCONF, &list);
  list.ifc_len = sizeof records;
  list.ifc_req = records;
  ioctl(any, SIOCGIFCONF, &list);
  close(any);
}

int main(void) {
  const int receiver = open_socket();
  if (receiver < 0) return 1;
  puts("ready");
  fflush(stdout);
  for (;;) {
    char datagram[DATAGRAM_BYTES];
    struct sockaddr_in sender = {0};
    struct iovec part = {datagram, sizeof datagram};
    struct msghdr message = {0};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (recvmsg(receiver, &message, 0) < 0) return 1;
    list_interfaces();
    struct arpreq request = {0};
    memcpy(&request.arp_pa, &sender, sizeof sender);
    strcpy(request.arp_dev, "eth0");
    if (ioctl(receiver, SIOCGARP, &request) != 0) return 1;
  }
}
