/**
 * The program of the start-up and idle-cost measurements: sleeps the milliseconds given (0 by
 * default) and ends. Run with and without -javaagent:nox-agent.jar and compare the whole process.
 */
public final class Idle {
    private Idle() {
    }

    public static void main(String[] args) throws InterruptedException {
        long millis = args.length > 0 ? Long.parseLong(args[0]) : 0;
        if (millis > 0) {
            Thread.sleep(millis);
        }
    }
}
