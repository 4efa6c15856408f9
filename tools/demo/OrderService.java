package org.example.orders;

import java.util.ArrayList;
import java.util.List;

/**
 * The real Java program of the demo (tools/demo.sh): a stand-in for a service that keeps some
 * orders and churns through garbage, so that its heap and GC figures move while the demo looks
 * at it. Runs until it is asked to end.
 */
public final class OrderService {
    private OrderService() {
    }

    public static void main(String[] args) throws InterruptedException {
        List<byte[]> kept = new ArrayList<>();
        long orders = 0;
        while (true) {
            for (int i = 0; i < 2000; i++) {
                byte[] order = new byte[1024];
                if (orders++ % 50 == 0) {
                    kept.add(order);
                }
            }
            if (kept.size() > 20_000) {
                kept.subList(0, 10_000).clear();
            }
            Thread.sleep(20);
        }
    }
}
