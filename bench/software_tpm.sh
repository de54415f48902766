# Sourced by the TPM benchmarks: start_software_tpm starts swtpm on two free neighbouring ports
# and tpm2-abrmd in front of it on a private session bus under $work, adds their process ids to
# the caller's pids array, and sets tcti (for KEYLOFT_TCTI and tpm2-pkcs11), port and abrmd.
start_software_tpm() {
    mkdir -p "$work/state"
    port=$(python3 -c '
import socket
for _ in range(50):
    with socket.socket() as a, socket.socket() as b:
        a.bind(("127.0.0.1", 0)); port = a.getsockname()[1]
        try: b.bind(("127.0.0.1", port + 1))
        except OSError: continue
        print(port); break')
    export DBUS_SESSION_BUS_ADDRESS=unix:path=$work/bus
    dbus-daemon --session --nofork --nosyslog --address="$DBUS_SESSION_BUS_ADDRESS" 2> /dev/null &
    pids+=($!)
    swtpm socket --tpm2 --tpmstate dir="$work/state" \
        --server type=tcp,bindaddr=127.0.0.1,port="$port" \
        --ctrl type=tcp,bindaddr=127.0.0.1,port=$((port + 1)) --flags not-need-init,startup-clear &
    pids+=($!)
    sleep 0.5
    bus_name=com.intel.tss2.Tabrmd.keyloftbench$$
    root_flag=()
    [[ $(id -u) -ne 0 ]] || root_flag=(--allow-root)
    tpm2-abrmd --session --dbus-name="$bus_name" --tcti=swtpm:host=127.0.0.1,port="$port" \
        --flush-all "${root_flag[@]}" 2> /dev/null &
    abrmd=$!
    pids+=($abrmd)
    for _ in $(seq 100); do
        dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
            org.freedesktop.DBus.NameHasOwner string:"$bus_name" 2> /dev/null |
            grep -q 'boolean true' && break
        sleep 0.1
    done
    tcti="tabrmd:bus_name=$bus_name,bus_type=session"
}
