# Sourced by the signing benchmarks: prints the harness's key=value lines (one per run) as table
# rows of signatures per second, p50 and p99. Usage: rows <key column width> <key> <lines>
rows() {
    local width=$1 key=$2 line per_s p50 p99
    while IFS= read -r line; do
        per_s=$(sed -n 's/.* per_s=\([^ ]*\).*/\1/p' <<< "$line")
        p50=$(sed -n 's/.* p50_us=\([^ ]*\).*/\1/p' <<< "$line")
        p99=$(sed -n 's/.* p99_us=\([^ ]*\)$/\1/p' <<< "$line")
        printf "%-${width}s %14s %10s %10s\n" "$key" "$per_s" "$p50" "$p99"
    done <<< "$3"
}
