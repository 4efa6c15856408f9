package com.nox.jvm.inspector.filesocket;

import static org.junit.jupiter.api.Assertions.assertEquals;

import com.nox.jvm.inspector.contract.ToolLibrary;
import org.junit.jupiter.api.Test;

/** FileSocketAddress.createIdentifier through the tool's own class. */
class FileSocketAddressContractTest {
    static {
        ToolLibrary.load();
    }

    @Test
    void bareNamesLieInTmpAndPathsStayAsGiven() {
        String longName = "n".repeat(100) + "0123456789ABCDEFGHIJ";
        String[][] cases = {
            {"abc", "/tmp/abc"},
            {"./abc", "./abc"},
            {"/var/run/x.sock", "/var/run/x.sock"},
            {longName, "/tmp/" + longName.substring(0, 94)},
            {null, null},
        };
        for (String[] c : cases) assertEquals(c[1], FileSocketAddress.createIdentifier(c[0]), c[0]);
    }
}
