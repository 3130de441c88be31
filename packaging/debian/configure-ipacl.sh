
# What is saved in here belongs to the service's group: it may read it, others may not.
if ! dpkg-statoverride --list /etc/ipacl >/dev/null; then
    mkdir -p /etc/ipacl
    chown root:ipacl /etc/ipacl
    chmod 2750 /etc/ipacl
fi
