/* The floor for the memory of the daemon: a main loop with a connection to the system bus, and
 * nothing to do.
 */

#include <dbus/dbus-glib-lowlevel.h>
#include <dbus/dbus.h>
#include <glib.h>

int main(void) {
  DBusConnection* const bus = dbus_bus_get(DBUS_BUS_SYSTEM, NULL);
  if (bus == NULL) return 1;
  dbus_connection_setup_with_g_main(bus, NULL);
  g_main_loop_run(g_main_loop_new(NULL, FALSE));
  return 0;
}
