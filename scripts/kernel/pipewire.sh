# Runs the PipeWire driver on the kernel's cards, with PipeWire, WirePlumber and udev: unplugs a USB unit, and
# lets the ALSA driver reserve a card of the server on the session bus.
mkdir -p /run/udev; /lib/systemd/systemd-udevd --daemon 2>/dev/null; sleep 1
load snd-usb-audio; load xhci-pci; load snd-hda-codec-generic; load snd-hda-intel
load snd-dummy fake_buffer=0 pcm_substreams=1; sleep 4
dbus-daemon --session --nofork --address=unix:path=/run/user/bus & sleep 1
export DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/bus XDG_STATE_HOME=/run/user/state XDG_DATA_HOME=/run/user/data
cp -r /usr/share/wireplumber /run/wireplumber; rm -rf /run/wireplumber/bluetooth.lua*
sed -i '/bluetooth/d' /run/wireplumber/wireplumber.conf
export WIREPLUMBER_CONFIG_DIR=/run/wireplumber WIREPLUMBER_DATA_DIR=/run/wireplumber
pipewire > /run/pipewire.log 2>&1 & sleep 3
wireplumber > /run/wireplumber.log 2>&1 &
wait_for '$dxr list 2>/dev/null | grep -q usb'
$dxr list
usb=$($dxr list | grep -o 'alsa_output.usb[^ ]*')
check "the USB unit is known by its serial number" '[[ $usb == *_S0042-* ]]'
hda=$($dxr list | grep -o 'alsa_card.pci[^ ]*')
$dxr info "$hda"
check "the server's devices, not the cards, are the default" '! $dxr list 2>/dev/null | grep -q alsa:'
$dxr watch > /run/watch 2>&1 & watcher=$!
sleep 3; usb 0
check "the unit goes" 'wait_for "! $dxr list 2>/dev/null | grep -q usb"'
usb 1
check "the unit comes back" 'wait_for "$dxr list 2>/dev/null | grep -q usb"'
kill -INT $watcher; wait $watcher; cat /run/watch
echo "--- a loop through an unplug"
$dxr loop --in alsa_card.platform-snd_dummy.0 --out "$usb" --seconds 25 > /run/loop 2>&1 & player=$!
sleep 8; usb 0; sleep 4; usb 1
wait $player; tail -6 /run/loop
check "the loop goes on after the unplug" 'grep -q "^[1-9][0-9]* restart" /run/loop'
echo "--- the dummy card, which the server plays on, for the ALSA driver"
$dxr loop --in alsa_card.platform-snd_dummy.0 --out alsa_card.platform-snd_dummy.0 --seconds 25 > /run/server 2>&1 & player=$!
sleep 6
$dxr trace /run/trace.json --hardware alsa --frames 1024 --in Dummy --out Dummy --seconds 5 2>&1 | tail -4 | tee /run/taken
check "the card was given to the ALSA driver" 'grep -q "[1-9][0-9]* cycles of 1024" /run/taken'
wait $player; cat /run/server | tail -4
sleep 3; $dxr list
check "the server has it again" '$dxr list 2>/dev/null | grep -q snd_dummy'
tail -3 /run/wireplumber.log
exit $bad
