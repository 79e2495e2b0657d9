/* The floor for the memory of the daemon: a main loop with a connection to the system bus, which
 * does nothing but read what comes in.
 */

#include <dbus/dbus.h>
#include <glib-unix.h>
#include <glib.h>

static gboolean read_on(gint descriptor, GIOCondition condition, gpointer bus) {
  (void)descriptor;
  (void)condition;
  if (!dbus_connection_read_write_dispatch(bus, 0)) return G_SOURCE_REMOVE;
  return G_SOURCE_CONTINUE;
}

int main(void) {
  DBusConnection* const bus = dbus_bus_get(DBUS_BUS_SYSTEM, NULL);
  int descriptor = -1;
  if (bus == NULL || !dbus_connection_get_unix_fd(bus, &descriptor)) return 1;
  g_unix_fd_add(descriptor, G_IO_IN, read_on, bus);
  g_main_loop_run(g_main_loop_new(NULL, FALSE));
  return 0;
}
