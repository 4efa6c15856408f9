import java.util.concurrent.locks.LockSupport;

/**
 * A target VM for the attach benchmark: starts the number of threads given (default 0), each
 * parked for good, prints "READY <pid>" and then waits for the end of its standard input.
 */
public final class ManyThreads {
    private ManyThreads() {
    }

    public static void main(String[] args) throws Exception {
        int count = args.length > 0 ? Integer.parseInt(args[0]) : 0;
        for (int i = 0; i < count; i++) {
            Thread t = new Thread(LockSupport::park, "parked-" + i);
            t.setDaemon(true);
            t.start();
        }
        System.out.println("READY " + ProcessHandle.current().pid());
        System.out.flush();
        while (System.in.read() >= 0) {
            // until the benchmark closes our input
        }
    }
}
