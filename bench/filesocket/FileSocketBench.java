import com.nox.jvm.inspector.filesocket.FileServerSocket;
import com.nox.jvm.inspector.filesocket.FileSocket;
import com.nox.jvm.inspector.filesocket.FileSocketAddress;
import java.io.File;
import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import org.newsclub.net.unix.AFUNIXServerSocket;
import org.newsclub.net.unix.AFUNIXSocket;
import org.newsclub.net.unix.AFUNIXSocketAddress;

/**
 * Round-trip latency (1-byte ping-pong) and bulk throughput (64 KiB writes) of our file sockets
 * against the JDK's Unix-domain SocketChannel and junixsocket, in one JVM, both ends on two
 * threads. Each figure is the median of several rounds; the rounds interleave the contenders
 * so that a slow phase of the machine hits all of them alike.
 */
public final class FileSocketBench {
    private static final int ROUNDS = 7;
    private static final int PINGS = 50_000;
    private static final int CHUNK = 64 * 1024;
    private static final long BULK_BYTES = 512L << 20;

    /** One connected pair: the client's streams and the server side's streams. */
    interface Pair extends AutoCloseable {
        void ping() throws IOException; // client: send 1 byte, wait for 1 byte back

        void echoOnce() throws IOException; // server: receive 1 byte, send it back

        void writeChunk(byte[] chunk) throws IOException; // client: one 64 KiB write

        int readSome(byte[] buffer) throws IOException; // server: one read
    }

    interface PairFactory {
        Pair open(String path) throws IOException;
    }

    static class StreamPair implements Pair {
        final InputStream clientIn, serverIn;
        final OutputStream clientOut, serverOut;
        final AutoCloseable[] closeables;

        StreamPair(InputStream clientIn, OutputStream clientOut, InputStream serverIn, OutputStream serverOut,
                AutoCloseable... closeables) {
            this.clientIn = clientIn;
            this.clientOut = clientOut;
            this.serverIn = serverIn;
            this.serverOut = serverOut;
            this.closeables = closeables;
        }

        public void ping() throws IOException {
            clientOut.write(1);
            if (clientIn.read() < 0) throw new IOException("eof");
        }

        public void echoOnce() throws IOException {
            int b = serverIn.read();
            if (b < 0) throw new IOException("eof");
            serverOut.write(b);
        }

        public void writeChunk(byte[] chunk) throws IOException {
            clientOut.write(chunk, 0, chunk.length);
        }

        public int readSome(byte[] buffer) throws IOException {
            return serverIn.read(buffer, 0, buffer.length);
        }

        public void close() throws Exception {
            for (AutoCloseable c : closeables) c.close();
        }
    }

    static Pair ours(String path) throws IOException {
        FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, false);
        FileSocket client = new FileSocket(new FileSocketAddress(path), 0);
        FileSocket accepted = server.accept();
        return new StreamPair(client.getInputStream(), client.getOutputStream(), accepted.getInputStream(),
                accepted.getOutputStream(), client, accepted, server);
    }

    /** Ours through write0 alone: at most 1024 bytes per system call. */
    static Pair oursWrite0(String path) throws IOException {
        FileServerSocket server = new FileServerSocket(new FileSocketAddress(path), 0, false);
        FileSocket client = new FileSocket(new FileSocketAddress(path), 0);
        FileSocket accepted = server.accept();
        return new StreamPair(client.getInputStream(), client.getOutputStream(), accepted.getInputStream(),
                accepted.getOutputStream(), client, accepted, server) {
            @Override
            public void writeChunk(byte[] chunk) throws IOException {
                client.impl().write(chunk, 0, chunk.length, 0);
            }
        };
    }

    static Pair junix(String path) throws IOException {
        AFUNIXServerSocket server = AFUNIXServerSocket.newInstance();
        server.bind(AFUNIXSocketAddress.of(new File(path)));
        AFUNIXSocket client = AFUNIXSocket.newInstance();
        client.connect(AFUNIXSocketAddress.of(new File(path)));
        AFUNIXSocket accepted = server.accept();
        return new StreamPair(client.getInputStream(), client.getOutputStream(), accepted.getInputStream(),
                accepted.getOutputStream(), client, accepted, server);
    }

    /** The JDK's blocking SocketChannel, used the way its users use it: heap ByteBuffers. */
    static Pair jdk(String path) throws IOException {
        ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX);
        server.bind(UnixDomainSocketAddress.of(path));
        SocketChannel client = SocketChannel.open(UnixDomainSocketAddress.of(path));
        SocketChannel accepted = server.accept();
        ByteBuffer clientByte = ByteBuffer.allocateDirect(1);
        ByteBuffer serverByte = ByteBuffer.allocateDirect(1);
        return new Pair() {
            public void ping() throws IOException {
                clientByte.clear().put((byte) 1).flip();
                while (clientByte.hasRemaining()) client.write(clientByte);
                clientByte.clear();
                if (client.read(clientByte) < 0) throw new IOException("eof");
            }

            public void echoOnce() throws IOException {
                serverByte.clear();
                if (accepted.read(serverByte) < 0) throw new IOException("eof");
                serverByte.flip();
                while (serverByte.hasRemaining()) accepted.write(serverByte);
            }

            public void writeChunk(byte[] chunk) throws IOException {
                ByteBuffer b = ByteBuffer.wrap(chunk);
                while (b.hasRemaining()) client.write(b);
            }

            public int readSome(byte[] buffer) throws IOException {
                return accepted.read(ByteBuffer.wrap(buffer));
            }

            public void close() throws Exception {
                client.close();
                accepted.close();
                server.close();
                Files.deleteIfExists(Path.of(path));
            }
        };
    }

    /** Microseconds per round trip. */
    static double latency(Pair pair, int pings) throws Exception {
        Thread echo = new Thread(() -> {
            try {
                for (int i = 0; i < pings; i++) pair.echoOnce();
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
        echo.start();
        long start = System.nanoTime();
        for (int i = 0; i < pings; i++) pair.ping();
        long elapsed = System.nanoTime() - start;
        echo.join();
        return elapsed / 1000.0 / pings;
    }

    /** GB/s (10^9 bytes) for bytes sent in 64 KiB writes and read with a 64 KiB buffer. */
    static double throughput(Pair pair, long bytes) throws Exception {
        byte[] chunk = new byte[CHUNK];
        Thread writer = new Thread(() -> {
            try {
                for (long sent = 0; sent < bytes; sent += CHUNK) pair.writeChunk(chunk);
            } catch (IOException e) {
                throw new RuntimeException(e);
            }
        });
        byte[] buffer = new byte[CHUNK];
        long start = System.nanoTime();
        writer.start();
        long received = 0;
        while (received < bytes) {
            int n = pair.readSome(buffer);
            if (n < 0) throw new IOException("eof");
            received += n;
        }
        long elapsed = System.nanoTime() - start;
        writer.join();
        return bytes / (elapsed / 1e9) / 1e9;
    }

    static double median(List<Double> values) {
        double[] sorted = values.stream().mapToDouble(Double::doubleValue).sorted().toArray();
        return sorted[sorted.length / 2];
    }

    public static void main(String[] args) throws Exception {
        Map<String, PairFactory> contenders = new LinkedHashMap<>();
        contenders.put("ours (streams)", FileSocketBench::ours);
        contenders.put("ours (write0 only)", FileSocketBench::oursWrite0);
        contenders.put("JDK SocketChannel", FileSocketBench::jdk);
        contenders.put("junixsocket", FileSocketBench::junix);
        Map<String, List<Double>> latencies = new LinkedHashMap<>();
        Map<String, List<Double>> rates = new LinkedHashMap<>();
        String base = "/tmp/noxfs_bench_" + ProcessHandle.current().pid();
        int n = 0;
        for (int round = -1; round < ROUNDS; round++) { // round -1 warms every contender up
            for (Map.Entry<String, PairFactory> contender : contenders.entrySet()) {
                String path = base + "_" + (n++);
                try (Pair pair = contender.getValue().open(path)) {
                    double us = latency(pair, round < 0 ? 20_000 : PINGS);
                    double gbs = throughput(pair, round < 0 ? BULK_BYTES / 4 : BULK_BYTES);
                    if (round >= 0) {
                        latencies.computeIfAbsent(contender.getKey(), k -> new ArrayList<>()).add(us);
                        rates.computeIfAbsent(contender.getKey(), k -> new ArrayList<>()).add(gbs);
                    }
                } finally {
                    Files.deleteIfExists(Path.of(path));
                }
            }
        }
        double jdkLatency = median(latencies.get("JDK SocketChannel"));
        double jdkRate = median(rates.get("JDK SocketChannel"));
        System.out.printf("%d rounds; latency: %d one-byte round trips per round; bulk: %d MiB in 64 KiB writes per round%n",
                ROUNDS, PINGS, BULK_BYTES >> 20);
        System.out.printf("%-20s %14s %12s %14s %12s%n", "", "round trip us", "vs JDK", "bulk GB/s", "vs JDK");
        for (String name : contenders.keySet()) {
            double us = median(latencies.get(name));
            double gbs = median(rates.get(name));
            System.out.printf("%-20s %14.2f %11.2fx %14.2f %11.2fx%n", name, us, us / jdkLatency, gbs, gbs / jdkRate);
        }
        System.out.println("(latency ratio above 1 is slower than the JDK; throughput ratio above 1 is faster)");
        System.out.println("all latency rounds (us): " + latencies);
        System.out.println("all bulk rounds (GB/s): " + rates);
    }
}
