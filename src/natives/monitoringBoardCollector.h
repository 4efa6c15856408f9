// Keeps one Java object per visible monitoring board: lists the board files under /tmp, maps
// each new one and hands the mapping to Java as a direct ByteBuffer (or the file name, where the
// Java class has such a constructor), keeps the objects of boards that are still there, and
// tells the objects of boards that are gone.
#ifndef NOX_NATIVES_MONITORING_BOARD_COLLECTOR_H
#define NOX_NATIVES_MONITORING_BOARD_COLLECTOR_H

#include "cvector.h"
#include "sharedFile.h"

#include <jni.h>

// The range of a board whose mapping Java saw as a ByteBuffer, after the board was given up: it
// holds zero pages, so that a late read of the buffer sees zeros instead of killing the JVM, and
// is given back once the buffer has been collected (`buffer` is a weak global reference to it).
struct RetiredBoardRange {
    void* address;
    size_t size;
    jweak buffer;
};

// A proxy owns its board's mapping and its global reference. It cannot be copied; moving
// hands both over and leaves the source with neither.
//
// Java may still hold a board's ByteBuffer after the board is reported gone, and read it. So a
// mapping that was handed to Java as a ByteBuffer is never unmapped by the proxy: it is retired
// (zero pages take its place) and left in the collector's list of retired ranges.
class MonitoringBoardProxy {
public:
    // Takes the file's mapping over, if it has one; a retired range goes to `retired`.
    MonitoringBoardProxy(J2SE::SharedFile&& file, J2SE::cvector<RetiredBoardRange>* retired);
    MonitoringBoardProxy(const MonitoringBoardProxy&) = delete;
    MonitoringBoardProxy& operator=(const MonitoringBoardProxy&) = delete;
    MonitoringBoardProxy(MonitoringBoardProxy&& other);
    // Releases this proxy's own mapping first, then takes over the other's.
    MonitoringBoardProxy& operator=(MonitoringBoardProxy&& other);
    // Releases the mapping; the Java reference is dropped, not deleted (the collector deletes
    // those it gives up).
    ~MonitoringBoardProxy();

    // Caches the board class, its constructors and its two methods. False, with a Java exception
    // pending, when the class lacks the (ByteBuffer, int) constructor or one of the methods.
    static bool init(JNIEnv* env, jclass board_class);
    static bool is_initialised() { return _monitor_board_class != nullptr; }
    static jclass board_class() { return _monitor_board_class; }
    // Forgets the cached class (at library unload).
    static void release(JNIEnv* env);

    // Maps the board and creates its Java object, unless already mapped.
    void map(JNIEnv* env);
    // Unmaps, or retires a mapping that Java has seen as a ByteBuffer.
    void unmap();

    int pid() const { return _shared_file.get_pid(); }
    jobject board() const { return _jboard_obj; }
    bool is_marked() const { return _mark; }
    void set_mark(bool mark) { _mark = mark; }
    void forget_board() { _jboard_obj = nullptr; }

    static jmethodID is_alive_method() { return _is_alive; }
    static jmethodID process_is_gone_method() { return _process_is_gone; }

private:
    J2SE::SharedFile _shared_file;
    bool _mark;
    jobject _jboard_obj;
    // A direct ByteBuffer over the mapping was handed to Java, and a weak reference to it (null
    // when none could be made: the range then stays retired for the life of the process).
    bool _exposed;
    jweak _buffer_ref;
    J2SE::cvector<RetiredBoardRange>* _retired;

    static jclass _monitor_board_class;
    static jmethodID _board_constructor;
    static jmethodID _board_constructor_based_on_file;
    static jmethodID _process_is_gone;
    static jmethodID _is_alive;
};

class MonitoringBoardCollector {
public:
    explicit MonitoringBoardCollector(int capacity) : _retired(8), _the_boards(capacity) {}

    // Brings the list of boards up to date. Java exceptions raised by the board objects are
    // collected: the first one is pending when this returns, the refresh itself completes.
    void refresh(JNIEnv* env);
    // refresh(), then the board objects in list order (null with an exception pending when the
    // array cannot be made).
    jobjectArray get_board_objects(JNIEnv* env);
    static MonitoringBoardProxy* find_proxy(J2SE::cvector<MonitoringBoardProxy>& boards, int pid);

    // Tells every board that it is gone and releases it (at library unload, or before boards
    // of another class are made).
    void release(JNIEnv* env);
    // Gives back the retired ranges whose buffers Java has collected; run by every refresh.
    void release_unreachable_ranges(JNIEnv* env);
    int retired_ranges() const { return _retired.size(); }

    // The one collector of the process, created at library load with room for 50 boards.
    static MonitoringBoardCollector* the_impl();
    static void destroy_the_impl(JNIEnv* env);

private:
    // Declared before the boards, so that it outlives them: a board destroyed leaves its range here.
    J2SE::cvector<RetiredBoardRange> _retired;
    J2SE::cvector<MonitoringBoardProxy> _the_boards;
};

#endif
