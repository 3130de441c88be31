# The saved configuration, and what a save that was cut short left beside it.
rm -f /etc/ipacl/startup-config /etc/ipacl/startup-config.??????
rmdir /etc/ipacl 2>/dev/null || true
rm -rf /run/ipacl
