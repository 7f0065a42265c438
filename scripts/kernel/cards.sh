# Which cards there are by the ALSA driver, chosen by itself; each plays and records for a moment.
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; load snd-hda-codec-generic; load snd-hda-intel
load snd-usb-audio; load xhci-pci; sleep 4
cat /proc/asound/cards
$dxr list
check "without a server the cards are listed" '[ $($dxr list 2>/dev/null | grep -c alsa:) -ge 4 ]'
exit $bad
