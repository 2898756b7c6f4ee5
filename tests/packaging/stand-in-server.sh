#!/bin/sh
# Stands in for ravlet-server beside the program: it notes each start beside the path it was
# started by, and never answers.
echo "$@" >>"$0.started"
exec sleep 60
