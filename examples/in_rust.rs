// In Rust, over the C interface: records the default input, plays on two outputs, and continues while a
// device is unplugged and plugged in again, on a simulated computer: rustc in_rust.rs -l dxr && ./in_rust
use std::ffi::{c_char, c_double, c_int, c_void, CStr, CString};
use std::{mem, ptr, thread, time::Duration};

type Handle = *const c_void;

#[repr(C)]
struct Cycle { size: usize, sample_time: u64, host_time: u64, samples: *mut f32, frames: u32, channels: u32, sample_rate: c_double }
#[repr(C)]
struct Node {
    size: usize, device: Handle, default_of: c_int, channels: *const u32, channel_count: usize,
    io: Option<extern "C" fn(*const Cycle, *mut c_void) -> c_int>, user: *mut c_void, sound: Handle,
}
#[repr(C)]
struct SimulatedDevice {
    size: usize, uid: *const c_char, name: *const c_char, transport: *const c_char, inputs: u32, outputs: u32, frames: u32,
    is_hidden: c_int, sample_rate: c_double, sample_rates: *const c_double, sample_rate_count: usize, has_volume: c_int,
    volume: c_double, sources: *const *const c_char, source_count: usize, drift: c_double, latency: u32, clock_domain: u32,
    loops_back: c_int, tone: c_double,
}
extern "C" {
    fn dxr_error_text() -> *const c_char;
    fn dxr_release(handle: Handle) -> c_int;
    fn dxr_simulated_new(clock: c_int, computer: *mut Handle) -> c_int;
    fn dxr_simulated_plug(computer: Handle, device: *const SimulatedDevice) -> c_int;
    fn dxr_simulated_unplug(computer: Handle, uid: *const c_char) -> c_int;
    fn dxr_device_with_uid(uid: *const c_char, direction: c_int, device: *mut Handle) -> c_int;
    fn dxr_follow(callback: extern "C" fn(Handle, c_int, *mut c_void), user: *mut c_void, follower: *mut Handle) -> c_int;
    fn dxr_sound_new(frames: u64, channels: u32, rate: c_double, repeats: c_int, sound: *mut Handle) -> c_int;
    fn dxr_sound_position(sound: Handle, frames: *mut u64) -> c_int;
    fn dxr_sound_samples(sound: Handle, samples: *mut *mut f32) -> c_int;
    fn dxr_runner_new(runner: *mut Handle) -> c_int;
    fn dxr_runner_set_format(runner: Handle, frames: u32, rate: c_double) -> c_int;
    fn dxr_runner_add(runner: Handle, node: *const Node) -> c_int;
    fn dxr_runner_start(runner: Handle) -> c_int;
    fn dxr_runner_stop(runner: Handle) -> c_int;
}

fn check(status: c_int) {
    if status != 0 {
        panic!("{}", unsafe { CStr::from_ptr(dxr_error_text()) }.to_string_lossy());
    }
}

// Called in real time: no lock, no allocation, no waiting.
extern "C" fn play(cycle: *const Cycle, _user: *mut c_void) -> c_int {
    let cycle = unsafe { &*cycle };
    let samples = unsafe { std::slice::from_raw_parts_mut(cycle.samples, (cycle.frames * cycle.channels) as usize) };
    for (i, sample) in samples.iter_mut().enumerate() {
        let time = cycle.sample_time + i as u64 / cycle.channels as u64;
        *sample = 0.2 * ((time % 109) as f32 / 109.0 - 0.5);
    }
    0
}

extern "C" fn report(_device: Handle, change: c_int, _user: *mut c_void) {
    println!("{}", ["", "connected", "disconnected", "updated"][change as usize]);
}

fn main() {
    unsafe {
        let mut computer: Handle = ptr::null();
        check(dxr_simulated_new(1, &mut computer));
        let names: Vec<CString> = ["mic", "one", "two"].iter().map(|name| CString::new(*name).unwrap()).collect();
        let device = |i: usize, inputs, outputs, sample_rate| SimulatedDevice {
            size: mem::size_of::<SimulatedDevice>(), uid: names[i].as_ptr(), inputs, outputs, sample_rate,
            tone: if inputs > 0 { 440.0 } else { 0.0 }, ..mem::zeroed()
        };
        check(dxr_simulated_plug(computer, &device(0, 1, 0, 48000.0)));
        check(dxr_simulated_plug(computer, &device(1, 0, 2, 48000.0)));
        check(dxr_simulated_plug(computer, &device(2, 0, 2, 44100.0)));

        let (mut follower, mut sound, mut runner): (Handle, Handle, Handle) = mem::zeroed();
        check(dxr_follow(report, ptr::null_mut(), &mut follower));
        check(dxr_sound_new(48000, 1, 48000.0, 0, &mut sound));
        check(dxr_runner_new(&mut runner));
        check(dxr_runner_set_format(runner, 256, 48000.0));
        let node = || Node { size: mem::size_of::<Node>(), ..mem::zeroed() };
        check(dxr_runner_add(runner, &Node { default_of: 1, channels: &1, channel_count: 1, sound, ..node() }));
        for name in &names[1..] {
            let mut output: Handle = ptr::null();
            check(dxr_device_with_uid(name.as_ptr(), 2, &mut output));
            check(dxr_runner_add(runner, &Node { device: output, io: Some(play), ..node() }));
            check(dxr_release(output));
        }
        check(dxr_runner_start(runner));
        thread::sleep(Duration::from_millis(300));
        check(dxr_simulated_unplug(computer, names[2].as_ptr()));
        thread::sleep(Duration::from_millis(300));
        check(dxr_simulated_plug(computer, &device(2, 0, 2, 44100.0)));
        thread::sleep(Duration::from_millis(900));
        check(dxr_runner_stop(runner));
        let (mut recorded, mut samples) = (0u64, ptr::null_mut::<f32>());
        check(dxr_sound_position(sound, &mut recorded));
        check(dxr_sound_samples(sound, &mut samples));
        let loudest = (0..recorded as usize).map(|i| *samples.add(i)).fold(0.0, f32::max);
        println!("recorded {} frames, up to {:.2}", recorded, loudest);
        for handle in [runner, sound, follower, computer] {
            check(dxr_release(handle));
        }
    }
}
