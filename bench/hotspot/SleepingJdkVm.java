/** A JDK VM that does nothing until its standard input ends: the benchmark's subject. */
public final class SleepingJdkVm {
    private SleepingJdkVm() {
    }

    public static void main(String[] args) throws Exception {
        System.out.println("READY");
        System.out.flush();
        while (System.in.read() >= 0) {
            // wait for the end of input
        }
    }
}
