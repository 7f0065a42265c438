# time: counted
# Checks that alsa-lib returns the same results for the kernel's cards as for the faked ones.
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; load snd-hda-codec-generic; load snd-hda-intel
sleep 1
facts=$PROGRAMS/tests/hal/alsa/alsa_facts
DXR_FAKED_CARD=1 LD_PRELOAD=$FAKED/libdxr_faked_cards.so $facts hw:0 > /run/facts.faked 2>&1
cat /run/facts.faked
for card in Dummy Intel; do
    $facts hw:$card > /run/facts.$card 2>&1
    check "$card is as the faked card" 'diff /run/facts.faked /run/facts.'$card
done
$facts hw:Loopback,0 hw:Loopback,1 > /run/facts.Loopback 2>&1
check "the loop-back is as the faked card" 'diff /run/facts.faked /run/facts.Loopback'
exit $bad
