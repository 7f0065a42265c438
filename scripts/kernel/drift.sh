# Two cards, one made fast by 200 ppm with the loop-back's own control: what the clocks measure of each other.
echo -1 > /proc/sys/kernel/sched_rt_runtime_us # an emulated processor is slow: its audio threads may need all of it
load snd-dummy fake_buffer=0 pcm_substreams=1; load snd-aloop pcm_substreams=1; sleep 2
for device in 0 1; do
    amixer -q -c Loopback cset iface=PCM,name='PCM Rate Shift 100000',device=$device 100020 || true
done
$dxr loop --hardware alsa --frames 4096 --in Dummy --out "PCM 1" --seconds 100 2>&1 | tail -6 | tee /run/drift
# To the ppm that is printed last.
check "200 ppm within 2" 'grep -o "[+-][0-9.]* ppm" /run/drift | tail -1 |
    awk "{ d = \$1 < 0 ? -\$1 : \$1; isNear = d > 198 && d < 202 } END { exit !isNear }"'
exit $bad
