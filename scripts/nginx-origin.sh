#!/bin/bash
# Serves a presentation folder with Debian's nginx on a free loopback port, as an ordinary user and
# in the foreground: no system configuration is read or changed, nothing is left behind.
#
#   scripts/nginx-origin.sh FOLDER [RATE]
#
# RATE is nginx's limit_rate, bytes per second for each reply behind its first second: 750k is
# 6 Mbit/s. Each line on the standard input, unless that is a terminal, is another RATE, for replies
# that begin from then on:
#   (sleep 20; echo 125k; sleep 40; echo 1m) | scripts/nginx-origin.sh FOLDER 750k
# The first line on the standard output is "Serving FOLDER at http://127.0.0.1:PORT/"; the server
# runs until this script is ended (SIGINT, SIGTERM, SIGHUP).
#
# Exit codes: 0 ended by a signal, 1 nginx is missing or does not start, 2 wrong arguments.
set -u

fail() {
    echo "nginx-origin: $2" >&2
    exit "$1"
}

[ $# -eq 1 ] || [ $# -eq 2 ] || fail 2 "usage: nginx-origin.sh FOLDER [RATE]"
folder=$(realpath -e -- "$1" 2>/dev/null) && [ -d "$folder" ] || fail 2 "$1 is not a folder"
rate=${2:-0}
is_rate() {
    [[ $1 =~ ^[0-9]{1,9}[kKmM]?$ ]]
}
is_rate "$rate" || fail 2 "'$rate' is not a rate in bytes per second, such as 750k"
[[ $folder != *[\"\\\$$'\n']* ]] || fail 2 "$folder: nginx cannot quote this name"
nginx=$(PATH=$PATH:/usr/sbin:/sbin command -v nginx) ||
    fail 1 "nginx is not installed; apt-get install nginx-light"

dir=$(mktemp -d) || fail 1 "no temporary folder"
pid=
stop() {
    trap - EXIT INT TERM HUP
    if [ -n "$pid" ]; then
        kill -TERM "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    fi
    rm -rf -- "$dir"
}
trap stop EXIT
trap 'stop; exit 0' INT TERM HUP

# Root would serve with the rights of an account that may not read the folder.
user=
[ "$(id -u)" -ne 0 ] || user="user root;"

write_config() {
    cat >"$dir/nginx.conf" <<CONFIG
$user
daemon off;
worker_processes 1;
pid $dir/pid;
error_log $dir/error.log;
events { worker_connections 256; }
http {
    types {
        video/x-matroska mkv;
        audio/x-matroska mka;
        application/smil+xml smil smi;
        text/xml xml;
    }
    default_type application/octet-stream;
    access_log $dir/access.log;
    client_body_temp_path $dir/body;
    proxy_temp_path $dir/proxy;
    fastcgi_temp_path $dir/fastcgi;
    uwsgi_temp_path $dir/uwsgi;
    scgi_temp_path $dir/scgi;
    sendfile on;
    # With tcp_nopush small replies of several ranges come 40 ms late.
    tcp_nopush off;
    tcp_nodelay on;
    keepalive_timeout 75;
    keepalive_requests 100000;
    limit_rate $rate;
    server {
        listen 127.0.0.1:$1;
        root "$folder";
    }
}
CONFIG
}

answers() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

# Until the standard input ends, or nginx does.
take_rates() {
    local line= part status
    while kill -0 "$pid" 2>/dev/null; do
        IFS= read -r -t 0.5 part
        status=$?
        line+=$part
        [ "$status" -le 128 ] || continue  # the line's end has not come yet
        [ "$status" -eq 0 ] || [ -n "$line" ] || return 0
        if is_rate "$line"; then
            rate=$line
            write_config "$port"
            kill -HUP "$pid"
        else
            echo "nginx-origin: '$line' is not a rate" >&2
        fi
        line=
    done
}

# nginx cannot choose a port by itself, so ports are tried until it gets one.
for _ in $(seq 20); do
    port=$((20000 + RANDOM % 12000))
    ! answers "$port" || continue
    write_config "$port"
    "$nginx" -p "$dir" -e "$dir/error.log" -c "$dir/nginx.conf" >/dev/null 2>"$dir/start.log" &
    pid=$!
    for _ in $(seq 100); do
        if [ -s "$dir/pid" ] && answers "$port"; then
            echo "Serving $folder at http://127.0.0.1:$port/"
            [ -t 0 ] || take_rates
            wait "$pid"
            pid=
            cat "$dir/error.log" >&2
            fail 1 "nginx has ended by itself"
        fi
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.05
    done
    kill -TERM "$pid" 2>/dev/null
    wait "$pid"
    pid=
    grep -qi "address already in use" "$dir/error.log" "$dir/start.log" 2>/dev/null || break
done
cat "$dir/start.log" "$dir/error.log" >&2
fail 1 "nginx does not start"
