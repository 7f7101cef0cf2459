"""What a long life of reloads costs in memory. Left out of sanitizer builds, whose memory is their own."""

from harness import block, handler, post, server, timer

RELOADS = 1000
SETTLED_AFTER = 50
ALLOWED_GROWTH = 512  # KiB
TYPES = ["Door", "Window", "Roof", "Gate"]


def test_a_thousand_reloads_leave_the_resident_memory_flat(launch, output_pipe, tmp_path):
    pipe, event_pipe = output_pipe(), tmp_path / "events.pipe"
    settings = server(event_pipe) | timer(1, 3600)
    settings |= {f"Events/Source#{number}": {"Type": name} for number, name in enumerate(TYPES, start=2)}
    ids = [f"Events/Source#{number}" for number in range(1, 6)]
    for number in range(10):
        settings |= handler(number, *ids, EnabledDays="UMTWRFS", EnabledTimes="0-1200,1200-2400")
    daemon = launch(settings, prefix=["prlimit", "--nofile=4096", "--"])
    settled = 0
    for number in range(1, RELOADS + 1):
        daemon.reload()
        before = len(pipe.items)
        post(block(TYPES[number % 4], number=number), event_pipe)
        # Once from the always-on handler, and once from each of the ten.
        pipe.wait_for_event(TYPES[number % 4], properties={"number": str(number)}, after=before, count=11)
        if number == SETTLED_AFTER:
            settled = daemon.resident_kib()
    growth = daemon.resident_kib() - settled
    print(f"resident: {settled} KiB after {SETTLED_AFTER} reloads, {growth} KiB more after {RELOADS}")
    assert growth <= ALLOWED_GROWTH
