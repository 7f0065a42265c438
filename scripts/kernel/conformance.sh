# time: counted
# devices: -device ich9-intel-hda,id=second -device hda-output,bus=second.0,audiodev=none -device usb-audio,audiodev=none,multi=on,serial=S0008
# Runs the conformance suite with the ALSA driver on the kernel's cards: HD audio with both directions and
# with outputs only, and a USB unit of eight channels. HD audio is plugged and unplugged by binding its
# driver, the USB unit by the kernel's switch "authorized".
load snd-hda-codec-generic; load snd-hda-intel; load snd-usb-audio; load xhci-pci
wait_for '[ $(grep -c "^ *[0-9]" /proc/asound/cards) -eq 4 ]'; cat /proc/asound/cards
usb 0; bus=/sys/bus/pci/drivers/snd_hda_intel; failed=0
set -- $(cd $bus && ls -d 0000:*)
unit=$(dirname $(grep -l S0008 /sys/bus/usb/devices/*/serial))
cat > /run/cards <<CARDS
2 2 $bus/bind $1 $bus/unbind $1
0 2 $bus/bind $2 $bus/unbind $2
0 8 $unit/authorized 1 $unit/authorized 0
CARDS
unplug_all() { for card in $1 $2; do echo $card > $bus/unbind; done; echo 0 > $unit/authorized; } 2>/dev/null
unplug_all $1 $2
wait_for '! grep -q "^ *[0-9]" /proc/asound/cards'
export DXR_CARDS=/run/cards
suite=$PROGRAMS/tests/hal/alsa/conformance_kernel
tests=$($suite --gtest_list_tests | awk '/^[^ ]/ { suite = $1; next } { print suite $1 }')
for test in $tests; do
    timeout 200 $suite --gtest_filter=$test > /run/log 2>&1
    case $? in
    0) grep -q SKIPPED /run/log && echo "skipped: $test" || echo "ok: $test" ;;
    *) grep -v '^cannot start' /run/log | head -60; dmesg | tail -5; echo "FAILED: $test"; bad=1; failed=$((failed + 1)); unplug_all $1 $2 ;;
    esac
done
echo "$(echo "$tests" | wc -l) cases, $failed failed"
exit $bad
