# What alsa-lib answers over the kernel's cards and over the faked ones: the same.
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; load snd-hda-codec-generic; load snd-hda-intel; sleep 1
facts=$FAKED/alsa_facts
$facts hw:Dummy > /run/facts.dummy 2>&1
$facts hw:Loopback,0 hw:Loopback,1 > /run/facts.loopback 2>&1
$facts hw:Intel > /run/facts.hda 2>&1
$facts --faked > /run/facts.faked 2>&1
check "there are answers" '[ $(wc -l < /run/facts.faked) -ge 20 ]'
for card in dummy loopback hda; do
    check "$card answers as the faked card does" 'diff /run/facts.faked /run/facts.'$card
done
exit $bad
