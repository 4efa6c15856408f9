package com.nox.jvm.inspector.host;

import com.nox.jvm.inspector.natives.InspectorNatives;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.LinkOption;
import java.nio.file.Path;
import java.nio.file.attribute.UserPrincipal;
import java.util.concurrent.ConcurrentHashMap;
import java.util.Map;

/** Who owns a process and when it started, from /proc; user names are looked up once per uid. */
final class Processes {
    /** A process's owner: uid -1 and name "" when the process is not there. */
    record Owner(int uid, String user) {
        static final Owner UNKNOWN = new Owner(-1, "");
    }

    private final Map<Integer, String> users = new ConcurrentHashMap<>();

    /** The owner of the process (the owner of its /proc folder). */
    Owner owner(int pid) {
        if (pid <= 0) {
            return Owner.UNKNOWN;
        }
        Path proc = Path.of("/proc", Integer.toString(pid));
        try {
            int uid = (Integer) Files.getAttribute(proc, "unix:uid", LinkOption.NOFOLLOW_LINKS);
            String user = users.get(uid);
            if (user == null) {
                UserPrincipal principal = (UserPrincipal) Files.getAttribute(proc, "unix:owner",
                        LinkOption.NOFOLLOW_LINKS);
                user = principal.getName();
                users.put(uid, user);
            }
            return new Owner(uid, user);
        } catch (IOException | UnsupportedOperationException | ClassCastException e) {
            return Owner.UNKNOWN;
        }
    }

    /** The process's start in seconds since the epoch; 0 when it is not there. */
    static long start(int pid) {
        return pid > 0 ? InspectorNatives.getCreationTimeOfProcess0(pid) : 0;
    }
}
