# time: counted
# Runs an aggregate of two cards, one of which is slowed down by 200 ppm with the loop-back's control, and
# checks the measured ratio of their clocks.
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; sleep 2
for device in 0 1; do
    amixer -q -c Loopback cset iface=PCM,name='PCM Rate Shift 100000',device=$device 100020
done
$dxr list --hardware alsa > /dev/null # loads the command's files into memory
$dxr aggregate create Both Dummy "PCM 1" --hardware alsa --frames 1024 --seconds 100 2>&1 | tail -6 | tee /run/drift
check "200 ppm within 2" 'grep -o "[+-][0-9.]* ppm" /run/drift | tail -1 |
    awk "{ d = \$1 < 0 ? -\$1 : \$1; isNear = d > 198 && d < 202 } END { exit !isNear }"'
exit $bad
