# time: counted
# Lists the cards with the ALSA driver, which must be chosen by default. Then each card plays and records,
# with ring buffers of three cycles and of two.
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; load snd-hda-codec-generic; load snd-hda-intel
load snd-usb-audio; load xhci-pci; sleep 4
cat /proc/asound/cards
$dxr list
check "without a server the cards are listed" '[ $($dxr list 2>/dev/null | grep -c alsa:) -ge 4 ]'
play() { # NAME IN OUT FRAMES DRIVER
    echo "--- $1, $4 frames, $5"
    $dxr trace /run/trace.json --hardware $5 --frames $4 ${2:+--in "$2"} ${3:+--out "$3"} --seconds 8 2>&1 | tail -4
}
play Dummy Dummy Dummy 512 alsa
play Dummy Dummy Dummy 256 alsa:2
play Loop-back "PCM 1" "PCM 1" 1024 alsa
play Loop-back "PCM 1" "PCM 1" 512 alsa
play "Loop-back, two devices" "PCM 2" "PCM 1" 512 alsa
play "HD audio" HDA HDA 1024 alsa
play "HD audio" HDA HDA 2048 alsa
play "HD audio, output" "" HDA 1024 alsa
play USB "" "QEMU USB" 1024 alsa
exit $bad
