# time: counted
# Unplugs a USB unit ten times while `dxr loop` plays on it, and measures the time until that is reported and
# the time until the unit plays again.
load snd-hda-codec-generic; load snd-hda-intel; load snd-usb-audio; load xhci-pci
wait_for '[ $(grep -c "^ *[0-9]" /proc/asound/cards) -ge 2 ]'; sleep 1
$dxr list --hardware alsa > /dev/null # loads the command's files into memory
microseconds() { echo ${EPOCHREALTIME/./}; }
running() { local line; read -r line < /proc/asound/Audio/pcm0p/sub0/status && [ "$line" = "state: RUNNING" ]; } 2>/dev/null
: > /run/lines
$dxr loop --hardware alsa --frames 1024 --in HDA --out "QEMU USB" > >(while read -r line; do echo "$(microseconds) $line"; done >> /run/lines) 2>&1 &
player=$!
wait_for running || { cat /run/lines; exit 1; }
for round in 1 2 3 4 5 6 7 8 9 10; do
    sleep 1.5
    before=$(wc -l < /run/lines); start=$(microseconds)
    usb 0
    for _ in $(seq 400); do [ "$(wc -l < /run/lines)" -gt "$before" ] && break; sleep 0.005; done
    gone=$(( $(tail -1 /run/lines | cut -d' ' -f1) - start ))
    sleep 1
    usb 1 &
    for _ in $(seq 4000); do [ -e /proc/asound/Audio/pcm0p/sub0/status ] && break; sleep 0.001; done
    back=$(microseconds)
    for _ in $(seq 4000); do running && break; sleep 0.001; done
    echo "round $round: gone after $((gone / 1000)) ms, plays $(( ($(microseconds) - back) / 1000 )) ms after the card was there"
    running || { echo "FAILED: it does not play again"; bad=1; }
done
kill -INT $player; wait $player
cut -d' ' -f2- /run/lines | tail -24
exit $bad
