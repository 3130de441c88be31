rmdir /run/ubus 2>/dev/null || true
