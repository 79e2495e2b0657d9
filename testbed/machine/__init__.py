"""Two whole emulated units: 32-bit ARM machines with the installed packages, systemd, a kernel,
plugged hardware, and NFS between them."""
