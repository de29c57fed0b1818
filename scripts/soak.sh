#!/bin/bash
# make soak: the demo daemon under load for SOAK_SECONDS (default 600) on a private bus, while
# vok-powerd is killed and started again every SOAK_POWERD_RESTART seconds (default 20; it stays
# down for 3 s so that alarms move to their fallback timer) and the bus daemon is killed and
# started again at the same address every SOAK_BUS_RESTART seconds (default 120). 0 switches a
# restart off. Both are killed with SIGKILL, as a crash would end them.
#
# Every SOAK_SAMPLE seconds (default 5) it reads the demo's resident memory, open descriptors and
# threads from /proc; at the end it prints them as a table and a chart (and, when gnuplot is
# installed, draws soak.png). It fails (exit 1) when:
#   - vok-demo dies or does not stop cleanly on SIGTERM, or vok-powerd or the bus daemon dies
#     without having been killed here;
#   - a figure grows over the second half of the run beyond noise: the median of the last half of
#     those samples against the median of the first half. Medians ignore a short burst; samples
#     taken within SOAK_RECOVERY_S (default 20) seconds after a bus restart are left out, as the
#     demo is reconnecting then (GLib keeps the thread that made the new connection for about
#     15 s). The noise bound is 0 for descriptors and threads (anything the process keeps is a
#     leak) and SOAK_RSS_NOISE_KB (default 256 KiB) for memory: the heap moves by a few pages
#     between samples (under 50 KiB over the second half of five-minute runs), and over a
#     ten-minute run the two medians lie 150 s apart, so a leak of 2 KiB/s (one message in 60 of
#     the 1100 a second the loaded demo sends) shows;
#   - an alarm is missed (not fired SOAK_ALARM_LATE_MS, default 3000 ms, after its due time: a
#     power service that stops answering is given 2 s before the fallback timer takes over, and an
#     alarm handed back to the service is sent in whole seconds rounded up), fired twice, or fired
#     before its due time; taken from the alarm blade's lines (due and fired times);
#   - a blade stops working: a report period of the client or bus blade without a single answer,
#     unless it lies within SOAK_RECOVERY_S seconds after a bus restart.
# Logs, samples and the chart are kept in SOAK_OUT (default BUILD_DIR/soak). Every process started
# here is ended when the script ends, however it ends (Ctrl-C included). With SOAK_REPORT=DIR it
# runs nothing and reports on the output of an earlier run kept in DIR.
# Usage: soak.sh BUILD_DIR
set -euo pipefail
# shellcheck source=scripts/private-bus.sh
. "$(dirname "$0")/private-bus.sh"
build=$(cd "${1:-.}" && pwd)
seconds=${SOAK_SECONDS:-600}
powerdEvery=${SOAK_POWERD_RESTART:-20}
busEvery=${SOAK_BUS_RESTART:-120}
sampleEvery=${SOAK_SAMPLE:-5}
rssNoiseKb=${SOAK_RSS_NOISE_KB:-256}
lateMs=${SOAK_ALARM_LATE_MS:-3000}
recovery=${SOAK_RECOVERY_S:-20}
out=${SOAK_OUT:-$build/soak}
powerdDown=3

failures=()
busPid=""
powerdPid=""
demoPid=""
work=""

# Running and not a zombie (a child that died is one until it is reaped).
alive() {
    local state
    state=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null) || return 1
    [ -n "$state" ] && [ "$state" != Z ]
}

stopProcess() {  # pid: SIGTERM, then SIGKILL after 5 s; always reaped.
    local pid=$1
    [ -n "$pid" ] || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 50); do
        alive "$pid" || break
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
}

killProcess() {  # pid: SIGKILL and reap.
    kill -KILL "$1" 2>/dev/null || true
    wait "$1" 2>/dev/null || true
}

cleanup() {
    stopProcess "$demoPid"
    stopProcess "$powerdPid"
    stopProcess "$busPid"
    [ -z "$work" ] || rm -rf "$work"
}

start=${EPOCHREALTIME/[.,]/}
ms() {  # Milliseconds since the demo started.
    local t=${EPOCHREALTIME/[.,]/}
    echo $(((t - start) / 1000))
}
now() {  # Seconds since the demo started, with milliseconds.
    local t
    t=$(ms)
    printf '%d.%03d' $((t / 1000)) $((t % 1000))
}

event() {
    printf '%s\t%s\n' "$(now)" "$*" >>"$out/events.tsv"
    printf 'soak: +%ss %s\n' "$(now)" "$*"
}

startBus() {
    rm -f "$work/bus" "$work/address"
    dbus-daemon --config-file="$work/bus.conf" --nofork --print-address=3 3>"$work/address" \
        >>"$out/bus.log" 2>&1 &
    busPid=$!
    # The address is printed once the daemon listens.
    for _ in $(seq 100); do
        [ -s "$work/address" ] && return 0
        alive "$busPid" || break
        sleep 0.1
    done
    echo "soak: the bus daemon did not start (see $out/bus.log)" >&2
    exit 1
}

startPowerd() {
    "$powerdBin" --log >>"$out/powerd.log" 2>&1 &
    powerdPid=$!
}

sample() {
    local rss threads fds
    rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$demoPid/status" 2>/dev/null) || return 0
    threads=$(awk '/^Threads:/ {print $2}' "/proc/$demoPid/status" 2>/dev/null) || return 0
    fds=$(find "/proc/$demoPid/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
    [ -z "$rss" ] || printf '%s\t%s\t%s\t%s\n' "$(now)" "$rss" "$fds" "$threads" >>"$out/samples.tsv"
}

runSoak() {
    demoBin=$build/apps/vok-demo/vok-demo
    powerdBin=$build/apps/vok-powerd/vok-powerd
    for bin in "$demoBin" "$powerdBin"; do
        [ -x "$bin" ] || {
            echo "soak: $bin is not built" >&2
            exit 2
        }
    done
    command -v dbus-daemon >/dev/null || {
        echo "soak: dbus-daemon is not installed" >&2
        exit 2
    }
    mkdir -p "$out"
    rm -f "$out"/{demo.log,powerd.log,bus.log,samples.tsv,events.tsv,soak.png}
    # The socket lives in a short private directory: socket paths are limited to 108 bytes.
    work=$(mktemp -d)
    trap cleanup EXIT
    trap 'echo "soak: interrupted" >&2; exit 130' INT TERM
    write_bus_conf "$work/bus.conf" "unix:path=$work/bus"
    export KELVRA_BUS_ADDRESS=unix:path=$work/bus
    unset DBUS_SESSION_BUS_ADDRESS

    echo "soak: $seconds s; vok-powerd killed every ${powerdEvery} s, the bus every ${busEvery} s" \
        "(0: never); samples every ${sampleEvery} s; output in $out"
    startBus
    startPowerd
    start=${EPOCHREALTIME/[.,]/}
    "$demoBin" --load >"$out/demo.log" 2>&1 &
    demoPid=$!
    printf 'time_s\tevent\n' >"$out/events.tsv"
    printf 'time_s\trss_kb\tfds\tthreads\n' >"$out/samples.tsv"

    # The first sample once the demo has started its blades.
    local t status endMs=$((seconds * 1000)) nextSample=$((sampleEvery * 1000)) powerdStartAt
    local nextPowerdKill=$((powerdEvery > 0 ? powerdEvery * 1000 : endMs + 1))
    local nextBus=$((busEvery > 0 ? busEvery * 1000 : endMs + 1))
    powerdStartAt=$((endMs + 1))
    while :; do
        t=$(ms)
        if ! alive "$demoPid"; then
            status=0
            wait "$demoPid" || status=$?
            demoPid=""
            failures+=("vok-demo died (exit status $status) at +$(now) s")
            break
        fi
        if [ -n "$powerdPid" ] && ! alive "$powerdPid"; then
            failures+=("vok-powerd died at +$(now) s without being killed")
            break
        fi
        if ! alive "$busPid"; then
            failures+=("the bus daemon died at +$(now) s without being killed")
            break
        fi
        [ "$t" -lt "$endMs" ] || break
        if [ "$t" -ge "$nextSample" ]; then
            sample
            nextSample=$((nextSample + sampleEvery * 1000))
        fi
        if [ "$t" -ge "$nextPowerdKill" ] && [ -n "$powerdPid" ]; then
            killProcess "$powerdPid"
            powerdPid=""
            event "vok-powerd killed"
            powerdStartAt=$((t + powerdDown * 1000))
            nextPowerdKill=$((nextPowerdKill + powerdEvery * 1000))
        fi
        if [ "$t" -ge "$powerdStartAt" ]; then
            startPowerd
            event "vok-powerd started"
            powerdStartAt=$((endMs + 1))
        fi
        if [ "$t" -ge "$nextBus" ]; then
            killProcess "$busPid"
            startBus
            event "bus daemon killed and started again"
            nextBus=$((nextBus + busEvery * 1000))
        fi
        sleep 0.2
    done

    # A clean stop on SIGTERM is part of the run.
    if [ -n "$demoPid" ]; then
        local stopAt
        stopAt=$(ms)
        kill -TERM "$demoPid"
        while alive "$demoPid" && [ $(($(ms) - stopAt)) -lt 30000 ]; do
            sleep 0.1
        done
        if alive "$demoPid"; then
            failures+=("vok-demo did not stop within 30 s of SIGTERM")
            # Where it hangs, when a debugger is at hand.
            if command -v gdb >/dev/null; then
                gdb -p "$demoPid" -batch -ex 'thread apply all bt' >"$out/hang.txt" 2>&1 || true
                failures+=("its threads' stacks are in $out/hang.txt")
            fi
            kill -KILL "$demoPid"
        fi
        status=0
        wait "$demoPid" || status=$?
        demoPid=""
        [ "$status" -eq 0 ] || failures+=("vok-demo exited with status $status on SIGTERM")
    fi
    elapsed=$(now)
}

if [ -n "${SOAK_REPORT:-}" ]; then
    # Only the report, of an earlier run's output.
    out=$SOAK_REPORT
    elapsed=$(tail -n 1 "$out/samples.tsv" | cut -f1)
else
    runSoak
fi

# ---- the figures ----
echo
echo "=== the demo's figures (every ${sampleEvery} s; events since the sample before;" \
    "~: reconnecting, left out of the growth check)"
awk -F'\t' -v events="$out/events.tsv" -v recovery="$recovery" '
    BEGIN {
        while ((getline line < events) > 0) {
            split(line, f, "\t")
            if (f[1] != "time_s") { et[++ne] = f[1]; ev[ne] = f[2] }
            if (f[2] ~ /^bus daemon/) restart[++nr] = f[1]
        }
        printf "%10s %10s %5s %8s  %s\n", "time (s) ", "RSS (KiB)", "fds", "threads", "events"
        e = 1
    }
    NR > 1 {
        what = ""
        while (e <= ne && et[e] + 0 <= $1 + 0) {
            what = what (what == "" ? "" : ", ") ev[e]
            e++
        }
        gsub(/vok-powerd killed, vok-powerd started/, "vok-powerd restarted", what)
        mark = " "
        for (i = 1; i <= nr; i++) if ($1 + 0 >= restart[i] && $1 + 0 < restart[i] + recovery) mark = "~"
        printf "%9.1f%s %10d %5d %8d  %s\n", $1, mark, $2, $3, $4, what
    }' "$out/samples.tsv"

# A chart of each figure: one column per sample (the highest of each group when there are more
# samples than columns), rows from the lowest to the highest value.
chart() {
    awk -F'\t' -v col="$1" -v title="$2" '
        NR > 1 { v[++n] = $col + 0 }
        END {
            if (n == 0) exit
            width = 72; rows = 6
            per = int((n + width - 1) / width)
            for (i = 1; i <= n; i += per) {
                m = v[i]
                for (j = i; j < i + per && j <= n; j++) if (v[j] > m) m = v[j]
                c[++w] = m
            }
            lo = c[1]; hi = c[1]
            for (i = 1; i <= w; i++) { if (c[i] < lo) lo = c[i]; if (c[i] > hi) hi = c[i] }
            if (hi == lo) { printf "\n%s: %d throughout\n", title, lo; exit }
            printf "\n%s: %d .. %d (one column per %d sample%s)\n", title, lo, hi, per, (per > 1 ? "s" : "")
            for (r = rows; r >= 1; r--) {
                line = ""
                for (i = 1; i <= w; i++) {
                    level = hi == lo ? 1 : (c[i] - lo) / (hi - lo) * (rows - 1) + 1
                    line = line (level >= r - 0.5 ? "#" : " ")
                }
                printf "%10s |%s\n", r == rows ? hi : (r == 1 ? lo : ""), line
            }
        }' "$out/samples.tsv"
}
chart 2 "RSS (KiB)"
chart 3 "open descriptors"
chart 4 "threads"

if command -v gnuplot >/dev/null; then
    gnuplot <<PLOT 2>/dev/null && echo "chart: $out/soak.png" || true
set terminal png size 900,600
set output "$out/soak.png"
set multiplot layout 3,1 title "vok-demo under load"
set key off
set xlabel "seconds"
set ylabel "RSS (KiB)"
plot "$out/samples.tsv" using 1:2 skip 1 with lines
set ylabel "descriptors"
plot "$out/samples.tsv" using 1:3 skip 1 with steps
set ylabel "threads"
plot "$out/samples.tsv" using 1:4 skip 1 with steps
unset multiplot
PLOT
fi

# ---- growth over the second half ----
echo
while IFS= read -r line; do
    echo "$line"
    case $line in GROWS*) failures+=("${line#GROWS }") ;; esac
done < <(awk -F'\t' -v rssNoise="$rssNoiseKb" -v total="$elapsed" -v events="$out/events.tsv" \
    -v recovery="$recovery" '
    BEGIN {
        while ((getline line < events) > 0) {
            split(line, f, "\t")
            if (f[2] ~ /^bus daemon/) restart[++nr] = f[1]
        }
    }
    function settled(t,    i) {
        for (i = 1; i <= nr; i++) if (t >= restart[i] && t < restart[i] + recovery) return 0
        return 1
    }
    function median(from, to,    i, j, k, a, x) {
        k = 0
        for (i = from; i <= to; i++) a[++k] = v[i]
        for (i = 2; i <= k; i++) { x = a[i]; for (j = i - 1; j >= 1 && a[j] > x; j--) a[j + 1] = a[j]; a[j + 1] = x }
        return k % 2 ? a[(k + 1) / 2] : (a[k / 2] + a[k / 2 + 1]) / 2
    }
    NR > 1 && $1 + 0 >= total / 2 && settled($1 + 0) { n++; rss[n] = $2; fds[n] = $3; thr[n] = $4 }
    END {
        if (n < 4) { print "too few settled samples over the second half to judge growth"; exit }
        half = int(n / 2)
        name[1] = "RSS (KiB)"; name[2] = "descriptors"; name[3] = "threads"
        noise[1] = rssNoise; noise[2] = 0; noise[3] = 0
        for (m = 1; m <= 3; m++) {
            for (i = 1; i <= n; i++) v[i] = m == 1 ? rss[i] : (m == 2 ? fds[i] : thr[i])
            a = median(1, half); b = median(n - half + 1, n)
            verdict = b - a > noise[m] ? "GROWS" : "steady"
            printf "%s %s: median %g, then %g over the second half (%d samples; noise bound %d)\n", verdict, name[m], a, b, n, noise[m]
        }
    }' "$out/samples.tsv")

# ---- alarms ----
echo
while IFS= read -r line; do
    echo "$line"
    case $line in FAIL*) failures+=("${line#FAIL }") ;; esac
done < <(awk -v lateMs="$lateMs" '
    /\[alarm \] alarm #[0-9]+ set for/ {
        id = $0; sub(/.*alarm #/, "", id); sub(/ .*/, "", id)
        due = $0; sub(/.*due \+/, "", due); sub(/ ms.*/, "", due)
        set[id] = due + 0; if (id + 0 > last) last = id + 0
    }
    /\[alarm \] alarm #[0-9]+ fired through/ {
        id = $0; sub(/.*alarm #/, "", id); sub(/ .*/, "", id)
        at = $0; sub(/.* at \+/, "", at); sub(/ ms.*/, "", at)
        fired[id]++; late = at - set[id]
        if (fired[id] == 1) { lateness[id] = late; count++ }
        if (count == 1 || late < minLate) minLate = late
        if (count == 1 || late > maxLate) maxLate = late
        if (/power service/) viaPower++; else viaFallback++
    }
    /\[alarm \] alarm #[0-9]+ fired again/ {
        id = $0; sub(/.*alarm #/, "", id); sub(/ .*/, "", id)
        again[id]++
    }
    / at \+[0-9.]+ ms/ {
        seen = $0; sub(/.* at \+/, "", seen); sub(/ ms.*/, "", seen)
        if (seen + 0 > lastSeen) lastSeen = seen + 0
    }
    /\[alarm \] stopping at/ {
        stopped = 1
        stopAt = $0; sub(/.*stopping at \+/, "", stopAt); sub(/ ms.*/, "", stopAt)
    }
    END {
        if (last == 0) { print "FAIL no alarm was set"; exit }
        printf "alarms: %d set, %d fired (%d through the power service, %d through the fallback timer)\n", last, count, viaPower, viaFallback
        if (count > 0) printf "alarm lateness: min %.3f ms, max %.3f ms\n", minLate, maxLate
        for (id = 1; id <= last; id++) {
            if (fired[id] + again[id] > 1) printf "FAIL alarm #%d fired %d times\n", id, fired[id] + again[id]
            # Without the stopping line (the demo died), the last time it printed is the end.
            if (fired[id] == 0 && set[id] + lateMs < (stopped ? stopAt : lastSeen))
                printf "FAIL alarm #%d (due +%.3f ms) missed\n", id, set[id]
            if (fired[id] > 0 && lateness[id] < 0) printf "FAIL alarm #%d fired %.3f ms early\n", id, -lateness[id]
            if (fired[id] > 0 && lateness[id] > lateMs) printf "FAIL alarm #%d missed its time: fired %.3f ms late\n", id, lateness[id]
        }
    }' "$out/demo.log")

# ---- blades at work ----
echo
while IFS= read -r line; do
    echo "$line"
    case $line in FAIL*) failures+=("${line#FAIL }") ;; esac
done < <(awk -v events="$out/events.tsv" -v recovery="$recovery" '
    BEGIN {
        while ((getline line < events) > 0) {
            split(line, f, "\t")
            if (f[2] ~ /^bus daemon/) restart[++nr] = f[1] * 1000
        }
    }
    function excused(from, to,    i) {
        for (i = 1; i <= nr; i++) if (to >= restart[i] && from <= restart[i] + recovery * 1000) return 1
        return 0
    }
    /\[client\] at \+.* round trips in the last/ || /\[bus   \] at \+.* bus calls answered in the last/ {
        blade = /\[client\]/ ? "client" : "bus"
        at = $0; sub(/.* at \+/, "", at); sub(/ ms:.*/, "", at); at += 0
        n = $0; sub(/.* ms: /, "", n); sub(/ .*/, "", n); n += 0
        period = $0; sub(/.* in the last /, "", period); sub(/ ms.*/, "", period)
        reports[blade]++; total[blade] += n
        if (n == 0 && !excused(at - period, at)) {
            printf "FAIL the %s blade had no answer between +%.1f s and +%.1f s\n", blade, (at - period) / 1000, at / 1000
        }
    }
    END {
        printf "client blade: %d round trips in %d reports; bus blade: %d calls answered in %d reports\n", total["client"], reports["client"], total["bus"], reports["bus"]
        if (!reports["client"] || !reports["bus"]) print "FAIL a blade never reported"
    }' "$out/demo.log")

if grep -q "\[VOK.MessageMover.Leak\]" "$out/demo.log"; then
    failures+=("vok-demo reported leaked MessageMover objects")
fi

echo
awk -F'\t' 'NR == 2 { first = $0 } NR > 1 { lastl = $0 }
    END {
        split(first, a, "\t"); split(lastl, b, "\t")
        printf "start: RSS %d KiB, %d descriptors, %d threads; end: RSS %d KiB, %d descriptors, %d threads\n", a[2], a[3], a[4], b[2], b[3], b[4]
    }' "$out/samples.tsv"
echo "logs: $out"
if [ ${#failures[@]} -gt 0 ]; then
    echo "soak: FAILED after $elapsed s:" >&2
    printf '  - %s\n' "${failures[@]}" >&2
    exit 1
fi
echo "soak: passed ($elapsed s)"
