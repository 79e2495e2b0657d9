/* The floor for the hardware service at rest: a GIO service on the bus that serves nothing. */

#include <gio/gio.h>

int main(void) {
  GMainLoop* loop = g_main_loop_new(NULL, FALSE);
  g_bus_own_name(G_BUS_TYPE_SYSTEM, "com.example.Bare", G_BUS_NAME_OWNER_FLAGS_NONE, NULL, NULL,
                 NULL, NULL, NULL);
  g_main_loop_run(loop);
  return 0;
}
