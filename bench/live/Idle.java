/** Sleeps for the milliseconds of its argument: the VM that bench_live's stat samples, and its idle floor. */
public final class Idle {
    private Idle() {
    }

    public static void main(String[] args) throws InterruptedException {
        Thread.sleep(Long.parseLong(args[0]));
    }
}
