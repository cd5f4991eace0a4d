#!/usr/bin/env bash
# Turns a flight recording (orlune-host --record) into PNG plots: IMU rates and
# accelerations, altitude, heading, motors, battery and an event timeline,
# laid over the simulator's truth (orlune-sim --truth) and the flight-log
# events of the host's log (orlune-host --log) when they are given.
#
# Usage: scripts/plot.sh RECORDING.csv [--truth TRUTH.csv] [--log HOST.log] [--out DIR]
#
# The x axis is seconds since the scenario started (derived from the truth
# file), or since the recording's first row without one. Columns are found by
# their header names (docs/recording.md).
set -euo pipefail

usage() {
  echo "usage: scripts/plot.sh RECORDING.csv [--truth TRUTH.csv] [--log HOST.log] [--out DIR]" >&2
  exit 2
}

recording="" truth="" log="" out=""
while [ $# -gt 0 ]; do
  case "$1" in
    --truth) [ $# -ge 2 ] || usage; truth=$2; shift 2 ;;
    --log) [ $# -ge 2 ] || usage; log=$2; shift 2 ;;
    --out) [ $# -ge 2 ] || usage; out=$2; shift 2 ;;
    -h|--help) usage ;;
    -*) echo "plot.sh: unknown option '$1'" >&2; usage ;;
    *) [ -z "$recording" ] || usage; recording=$1; shift ;;
  esac
done
[ -n "$recording" ] || usage
for f in "$recording" ${truth:+"$truth"} ${log:+"$log"}; do
  [ -r "$f" ] || { echo "plot.sh: cannot read '$f'" >&2; exit 2; }
done
if ! command -v gnuplot >/dev/null 2>&1; then
  echo "plot.sh: gnuplot is not installed; install the Debian package gnuplot-nox (scripts/deps.sh does)" >&2
  exit 1
fi
out=${out:-$(dirname "$recording")}
mkdir -p "$out"

work=$(mktemp -d "${TMPDIR:-/tmp}/orlune-plot-XXXXXX")
trap 'rm -rf "$work"' EXIT

# --- Time origin -------------------------------------------------------------
# A truth row's t is the scenario's epoch plus its scenario_t.
epoch=""
if [ -n "$truth" ]; then
  epoch=$(awk -F, 'NR == 1 { for (i = 1; i <= NF; i++) c[$i] = i; next }
                   NR == 2 { printf "%.6f", $c["t"] - $c["scenario_t"]; exit }' "$truth")
fi
if [ -z "$epoch" ]; then
  epoch=$(awk -F, 'NR == 1 { for (i = 1; i <= NF; i++) c[$i] = i; next }
                   NR == 2 { printf "%.6f", $c["t"]; exit }' "$recording")
fi
[ -n "$epoch" ] || { echo "plot.sh: '$recording' has no rows" >&2; exit 1; }

# --- The recording, one data file per plot -----------------------------------
# Rows are filtered on the `updated` bits so that each series holds fresh
# values only. Altitudes from the barometer and the GPS are relative to their
# first reading (the vehicle starts on the ground).
awk -F, -v epoch="$epoch" -v dir="$work" '
function hex(s,    v, i) {
  s = tolower(s); sub(/^0x/, "", s); v = 0
  for (i = 1; i <= length(s); i++) v = v * 16 + index("0123456789abcdef", substr(s, i, 1)) - 1
  return v
}
function bit(v, b) { return int(v / b) % 2 }
function v(name) { return $(c[name]) }
NR == 1 {
  for (i = 1; i <= NF; i++) c[$i] = i
  split("t updated imu_n imu_t0 imu_t1 gyro_x gyro_y gyro_z accel_x accel_y accel_z baro_p mag_x mag_y mag_z " \
        "motor_speed0 motor_speed1 motor_speed2 motor_speed3 motor_error0 motor_error1 motor_error2 motor_error3 " \
        "us_alt us_status gps_lat gps_lon gps_alt bat_voltage bat_rsoc bat_fault bat_temp_alert vis_z vis_status", need, " ")
  for (i in need) if (!(need[i] in c)) { print "plot.sh: the recording has no column " need[i] > "/dev/stderr"; bad = 1; exit 1 }
  next
}
{
  x = v("t") - epoch; u = hex(v("updated"))
  if (NR == 2) xmin = x
  xmax = x
  if (bit(u, 1) && v("imu_n") > 0) {
    ax = v("accel_x"); ay = v("accel_y"); az = v("accel_z")
    printf "%.6f %s %s %s %s %s %s\n", (v("imu_t0") + v("imu_t1")) / 2 - epoch,
           v("gyro_x"), v("gyro_y"), v("gyro_z"), ax, ay, az > (dir "/imu.dat")
  }
  if (bit(u, 2)) {
    if (p0 == "") p0 = v("baro_p")
    if (p0 > 0) printf "%.6f %.3f\n", x, 44330.77 * (1 - exp(0.190263 * log(v("baro_p") / p0))) > (dir "/baro.dat")
  }
  # Heading from the magnetometer, levelled with the attitude that the
  # latest accelerometer mean gives (specific force in forward-right-down axes).
  if (bit(u, 4) && az != "") {
    roll = atan2(-ay, -az); pitch = atan2(ax, sqrt(ay * ay + az * az))
    mx = v("mag_x"); my = v("mag_y"); mz = v("mag_z")
    hx = mx * cos(pitch) + my * sin(roll) * sin(pitch) + mz * cos(roll) * sin(pitch)
    hy = my * cos(roll) - mz * sin(roll)
    printf "%.6f %.2f\n", x, atan2(-hy, hx) * 57.29577951308232 > (dir "/mag.dat")
  }
  if (bit(u, 8))
    print x, v("motor_speed0"), v("motor_speed1"), v("motor_speed2"), v("motor_speed3"),
          v("motor_error0"), v("motor_error1"), v("motor_error2"), v("motor_error3") > (dir "/motors.dat")
  if (bit(u, 16)) print x, v("us_alt"), v("us_status") > (dir "/us.dat")
  if (bit(u, 32) && (v("gps_lat") != 0 || v("gps_lon") != 0)) {
    if (g0 == "") g0 = v("gps_alt")
    if (gx != "" && x - gx > 1) print "" > (dir "/gps.dat")
    print x, v("gps_alt") - g0 > (dir "/gps.dat"); gx = x
  }
  if (bit(u, 64)) print x, v("bat_voltage"), (v("bat_rsoc") == "" ? "NaN" : v("bat_rsoc")), v("bat_fault"),
                        v("bat_temp_alert") > (dir "/battery.dat")
  # Vision position: -z is the height while its status says valid (1).
  if (bit(u, 1024)) {
    if (vx != "" && x - vx > 0.5) print "" > (dir "/vision.dat")
    print x, (v("vis_status") == 1 ? -v("vis_z") : "NaN") > (dir "/vision.dat"); vx = x
  }
}
END { if (!bad) { if (xmin > 0) xmin = 0; printf "set xrange [%.3f:%.3f]\n", xmin, xmax > (dir "/range.gp"); printf "%.3f\n", xmax - xmin > (dir "/span") } }
' "$recording"
span=$(cat "$work/span")
for f in imu baro mag motors us gps battery vision; do
  [ -s "$work/$f.dat" ] || echo "NaN NaN NaN NaN NaN NaN NaN NaN NaN" > "$work/$f.dat"
done

# --- The truth, and its phases as shaded bands with their names -------------
: > "$work/phases.gp"
if [ -n "$truth" ]; then
  awk -F, -v dir="$work" '
  NR == 1 { for (i = 1; i <= NF; i++) c[$i] = i; next }
  {
    x = $(c["scenario_t"]); h = $(c["heading"]) * 57.29577951308232
    # A break in the line where the heading wraps around.
    if (NR > 2 && (h - lh > 180 || lh - h > 180)) print "" > (dir "/truth.dat")
    lh = h
    print x, $(c["rate_x"]), $(c["rate_y"]), $(c["rate_z"]), $(c["accel_x"]), $(c["accel_y"]), $(c["accel_z"]),
          $(c["altitude"]), h, $(c["battery_voltage"]), $(c["battery_charge"]) > (dir "/truth.dat")
    if ($(c["phase"]) != phase) {
      if (phase != "") band(start, x, phase)
      phase = $(c["phase"]); start = x
    }
    last = x
  }
  function band(x0, x1, name) {
    if (n++ % 2)
      printf "set object rect from first %.3f, graph 0 to first %.3f, graph 1 fc rgb \"#eef2f7\" fs solid noborder behind\n", x0, x1 > (dir "/phases.gp")
    printf "set label \"%s\" at first %.3f, graph 0.02 center font \",8\" tc rgb \"#7080a0\"\n", name, (x0 + x1) / 2 > (dir "/phases.gp")
  }
  END { if (phase != "") band(start, last, phase) }
  ' "$truth"
  truth_plot=1
else
  echo "NaN NaN NaN NaN NaN NaN NaN NaN NaN NaN NaN" > "$work/truth.dat"
  truth_plot=0
fi

# --- Flight-log events ---------------------------------------------------------
# "EVT:" lines, warnings and errors, and the GPS and vision connection
# notices. A message that repeats (the same text but for its numbers) within
# two seconds is drawn once, with its count.
: > "$work/events.txt"
if [ -n "$log" ]; then
  awk -v epoch="$epoch" '
  # By the tag; failed reads that the frame reports, by the sub-record named.
  function category(tag, msg) {
    if (msg ~ /EVT:SMARTBATTERY/ || tag ~ /^battery/) return "battery"
    if (msg ~ /EVT:ESC/ || tag ~ /^(bldc|motors)/) return "motors"
    if (tag ~ /^(gps|ultrasound)/) return "gps"
    if (tag ~ /(vision|vcam|fcam|gimbal|carpet)/) return "vision"
    if (tag ~ /^(imu|baro|magneto|iio)/) return "imu"
    if (tag == "sensors_orlune" && match(msg, /[a-z_]+ read failed/)) return category(substr(msg, RSTART, RLENGTH - 12), "")
    return "other"
  }
  function flush_burst(k) {
    if (count[k] > 1) label[k] = label[k] " (x" count[k] ")"
    printf "%.3f|%s|%s|%s\n", first[k], cat[k], label[k], level[k]
    delete count[k]
  }
  # "[  123.456789] W tag: text": the seconds are padded on the left.
  match($0, /^\[ *[0-9.]+\] [A-Z] [^:]+: /) {
    msg = substr($0, RLENGTH + 1)
    split(substr($0, 2, RLENGTH - 1), head, "]")
    t = head[1] + 0 - epoch; split(head[2], word, " "); prio = word[1]; tag = word[2]; sub(/:$/, "", tag)
    evt = index(msg, "EVT:")
    if (!evt && prio !~ /[WECA]/ && !(prio == "I" && category(tag, "") ~ /gps|vision/)) next
    if (evt) {
      text = substr(msg, evt + 4); sub(/^[A-Z_]+;/, "", text); gsub(/;device=.*$/, "", text); gsub(/;/, " ", text)
    } else {
      text = tag ": " msg
    }
    gsub(/["\\]/, "", text)
    if (length(text) > 44) text = substr(text, 1, 42) ".."
    key = tag "|" msg; gsub(/[0-9]+/, "N", key)
    if (key in count && t - seen[key] <= 2) { count[key]++; seen[key] = t; next }
    if (key in count) flush_burst(key)
    count[key] = 1; seen[key] = t; first[key] = t; cat[key] = category(tag, msg); label[key] = text; level[key] = prio
  }
  END { for (k in count) flush_burst(k) }
  ' "$log" | sort -t'|' -k1,1n > "$work/events.txt"
fi

# gnuplot commands that draw the events of some categories (warnings aside:
# they are on the timeline) as vertical lines, each labelled beside its line
# on the first row from the top where the label does not run into the
# previous one; "nolabels" draws the lines only.
markers() {
  awk -F'|' -v want="$1" -v colour="$2" -v span="$span" -v labels="${3:-labels}" '
  BEGIN { char = span / 250; rows = 10 }
  $2 ~ want && $4 != "W" {
    printf "set arrow from first %s, graph 0 to first %s, graph 1 nohead lc rgb \"%s\" dt 2 lw 1.2 front\n", $1, $1, colour
    if (labels == "nolabels") next
    for (r = 0; r < rows; r++) if (!(r in end) || end[r] < $1) break
    if (r == rows) r = n++ % rows
    end[r] = $1 + (length($3) + 2) * char
    printf "set label \"%s\" at first %s, graph %.3f left offset 0.4,0 font \",8\" tc rgb \"%s\" front\n", $3, $1, 0.95 - 0.045 * r, colour
  }' "$work/events.txt"
}
{
  echo "unset arrow"
  echo "unset label"
  echo "unset object"
} > "$work/clear.gp"

# --- The plots -----------------------------------------------------------------
written=()
plot() { # name, then gnuplot commands on stdin
  local name=$1
  {
    echo "set terminal pngcairo size 1400,1000 font 'sans,10' noenhanced"
    echo "set output '$out/$name'"
    echo "set grid lc rgb '#dddddd'"
    # Fixed margins keep the x axes of stacked panels aligned; keys go right.
    echo "set lmargin at screen 0.06"
    echo "set rmargin at screen 0.82"
    echo "set key outside right top Left reverse"
    echo "set datafile missing 'NaN'"
    cat "$work/range.gp"
    cat
  } > "$work/$name.gp"
  if ! gnuplot "$work/$name.gp" 2> "$work/$name.err"; then
    echo "plot.sh: gnuplot failed on $name:" >&2
    cat "$work/$name.err" >&2
    exit 1
  fi
  written+=("$out/$name")
}
truth_style="lc rgb '#d62728' lw 1.2"
meas_style="pt 7 ps 0.25 lc rgb '#1f77b4'"
imu_panels() { # first column of the measured axis in imu.dat, of truth.dat, unit
  local axes=(x y z)
  for k in 0 1 2; do
    [ "$k" -eq 1 ] && echo "$clear" && echo "$phases" && echo "$ev_imu_lines"
    echo "set ylabel '${axes[$k]} ($3)'"
    [ "$k" -eq 2 ] && echo "set xlabel 'seconds since the scenario start'"
    echo "plot '$work/imu.dat' using 1:$(($1 + k)) with points $meas_style title 'measured (batch mean)', \\"
    echo "     '$work/truth.dat' using 1:$(($2 + k)) with lines $truth_style title 'truth'"
  done
}
ev_imu=$(markers 'imu' '#9467bd')
ev_imu_lines=$(markers 'imu' '#9467bd' nolabels)
phases=$(cat "$work/phases.gp")
clear=$(cat "$work/clear.gp")

plot imu_rates.png <<EOF
set multiplot layout 3,1 title 'IMU angular rates, vehicle frame (forward, right, down)'
$phases
$ev_imu
$(imu_panels 2 2 rad/s)
unset multiplot
EOF

plot imu_accel.png <<EOF
set multiplot layout 3,1 title 'IMU specific force, vehicle frame (forward, right, down)'
$phases
$ev_imu
$(imu_panels 5 5 m/s²)
unset multiplot
EOF

plot altitude.png <<EOF
set title 'Altitude above the take-off point'
set ylabel 'm'
set xlabel 'seconds since the scenario start'
$phases
$(markers 'gps|vision' '#2ca02c')
plot '$work/baro.dat' using 1:2 with points pt 7 ps 0.3 lc rgb '#1f77b4' title 'barometer', \\
     '$work/us.dat' using 1:(\$3 == 0 ? \$2 : NaN) with points pt 7 ps 0.4 lc rgb '#ff7f0e' title 'ultrasound', \\
     '$work/us.dat' using 1:(\$3 != 0 ? \$2 : NaN) with points pt 6 ps 0.6 lc rgb '#ffbb78' title 'ultrasound, status not 0', \\
     '$work/gps.dat' using 1:2 with linespoints pt 5 ps 0.6 lc rgb '#2ca02c' title 'GPS (from its first fix)', \\
     '$work/vision.dat' using 1:2 with lines lw 2 lc rgb '#9467bd' title 'vision position (-z)', \\
     '$work/truth.dat' using 1:8 with lines $truth_style title 'truth'
EOF

plot heading.png <<EOF
set title 'Heading'
set ylabel 'degrees'
set yrange [-180:180]
set ytics 45
set xlabel 'seconds since the scenario start'
$phases
$(markers 'imu' '#9467bd')
plot '$work/mag.dat' using 1:2 with points $meas_style title 'magnetometer (levelled with the accelerometer)', \\
     '$work/truth.dat' using 1:9 with lines $truth_style title 'truth'
EOF

ev_motors=$(markers 'motors' '#d62728')
plot motors.png <<EOF
set multiplot layout 2,1 title 'Motors'
$phases
$ev_motors
set ylabel 'speed (controller units)'
plot for [m = 0:3] '$work/motors.dat' using 1:(column(2 + m)) with lines lw 1.5 title sprintf('motor %d', m)
$clear
$phases
$(markers 'motors' '#d62728' nolabels)
set ylabel 'error code (lines apart by 0.05)'
set xlabel 'seconds since the scenario start'
set yrange [-0.5:*]
plot for [m = 0:3] '$work/motors.dat' using 1:(column(6 + m) + 0.05 * m) with steps lw 2 title sprintf('motor %d', m)
unset multiplot
EOF

plot battery.png <<EOF
set multiplot layout 3,1 title 'Battery'
$phases
$(markers 'battery' '#ff7f0e')
set ylabel 'V'
plot '$work/battery.dat' using 1:2 with steps lw 1.5 lc rgb '#1f77b4' title 'voltage', \\
     '$work/truth.dat' using 1:10 with lines $truth_style title 'truth'
$clear
$phases
$(markers 'battery' '#ff7f0e' nolabels)
set ylabel '%'
plot '$work/battery.dat' using 1:3 with steps lw 1.5 lc rgb '#1f77b4' title 'charge (state of charge)', \\
     '$work/truth.dat' using 1:11 with lines $truth_style title 'truth'
$clear
$phases
$(markers 'battery' '#ff7f0e' nolabels)
set ylabel 'code'
set xlabel 'seconds since the scenario start'
set yrange [-0.5:*]
plot '$work/battery.dat' using 1:5 with steps lw 2 lc rgb '#ff7f0e' title 'temperature alert', \\
     '$work/battery.dat' using 1:4 with steps lw 2 lc rgb '#d62728' title 'fault'
EOF

if [ -s "$work/events.txt" ]; then
  # One row per category; within a row, a label that would run into the
  # previous one moves up a step.
  awk -F'|' -v span="$span" '
  BEGIN { split("battery motors gps vision imu other", names, " "); for (i in names) row[names[i]] = i; char = span / 230 }
  {
    r = row[$2]
    for (s = 0; s < 6; s++) if (!((r, s) in end) || end[r, s] < $1) break
    if (s == 6) s = 0
    end[r, s] = $1 + (length($3) + 3) * char
    printf "%s %.2f %d \"%s\"\n", $1, r + 0.14 * s, r, $3
  }' "$work/events.txt" > "$work/events.dat"
  plot events.png <<EOF
set terminal pngcairo size 1400,700 font 'sans,10' noenhanced
set output '$out/events.png'
set title 'Flight-log events'
set xlabel 'seconds since the scenario start'
set rmargin at screen 0.97
set yrange [0.7:6.9]
set ytics ('battery' 1, 'motors' 2, 'GPS' 3, 'vision' 4, 'IMU, IIO' 5, 'other' 6)
set key off
$phases
plot '$work/events.dat' using 1:2:3 with points pt 7 ps 1 lc variable, \\
     '$work/events.dat' using 1:2:4 with labels left offset 0.6,0 font ',7'
EOF
fi

echo "plots written:"
printf '  %s\n' "${written[@]}"
