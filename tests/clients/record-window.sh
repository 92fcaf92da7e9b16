#!/bin/sh
# record-window as launcher-check wants it: one short recording.
#   record-window.sh RECORD_WINDOW RECORDER OUTPUT LOGS
exec "$1" --window 77 --no-watch-clicks --click 10,20@0.1 --seconds 0.4 --ready-timeout 6 --finish-timeout 2 \
    --recorder "$2" --output "$3" --log-dir "$4"
