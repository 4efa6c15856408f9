#include "monitoringBoardCollector.h"

#include "allocations.h"
#include "retiredRange.h"
#include "sharedUtils.h"
#include "traceOutput.h"

#include <new>
#include <utility>

jclass MonitoringBoardProxy::_monitor_board_class = nullptr;
jmethodID MonitoringBoardProxy::_board_constructor = nullptr;
jmethodID MonitoringBoardProxy::_board_constructor_based_on_file = nullptr;
jmethodID MonitoringBoardProxy::_process_is_gone = nullptr;
jmethodID MonitoringBoardProxy::_is_alive = nullptr;

// The opaque cache value of the board-file listing; replaced by each listing.
static void* monitoring_board_file_cache = J2SE::SharedFile::create_shared_files_cache();

MonitoringBoardProxy::MonitoringBoardProxy(J2SE::SharedFile&& file, J2SE::cvector<RetiredBoardRange>* retired)
    : _shared_file(std::move(file)),
      _mark(false),
      _jboard_obj(nullptr),
      _exposed(false),
      _buffer_ref(nullptr),
      _retired(retired) {}

MonitoringBoardProxy::MonitoringBoardProxy(MonitoringBoardProxy&& other)
    : _shared_file(std::move(other._shared_file)),
      _mark(other._mark),
      _jboard_obj(other._jboard_obj),
      _exposed(other._exposed),
      _buffer_ref(other._buffer_ref),
      _retired(other._retired) {
    other._jboard_obj = nullptr;
    other._exposed = false;
    other._buffer_ref = nullptr;
}

MonitoringBoardProxy& MonitoringBoardProxy::operator=(MonitoringBoardProxy&& other) {
    if (this == &other) return *this;
    unmap();
    _shared_file = std::move(other._shared_file);
    _jboard_obj = other._jboard_obj;
    _exposed = other._exposed;
    _buffer_ref = other._buffer_ref;
    _retired = other._retired;
    other._jboard_obj = nullptr;
    other._exposed = false;
    other._buffer_ref = nullptr;
    return *this;
}

MonitoringBoardProxy::~MonitoringBoardProxy() {
    _jboard_obj = nullptr;
    unmap();
}

bool MonitoringBoardProxy::init(JNIEnv* env, jclass board_class) {
    if (board_class == nullptr) return false;
    release(env);
    _monitor_board_class = static_cast<jclass>(env->NewGlobalRef(board_class));
    _board_constructor = env->GetMethodID(board_class, "<init>", "(Ljava/nio/ByteBuffer;I)V");
    if (_board_constructor == nullptr) {
        release(env);
        return false;  // NoSuchMethodError pending
    }
    _board_constructor_based_on_file = env->GetMethodID(board_class, "<init>", "(Ljava/lang/String;I)V");
    if (_board_constructor_based_on_file == nullptr) env->ExceptionClear();  // optional
    _process_is_gone = env->GetMethodID(board_class, "processOfBoardIsGone", "()V");
    _is_alive = _process_is_gone != nullptr ? env->GetMethodID(board_class, "isAlive", "()Z") : nullptr;
    if (_is_alive == nullptr) {
        release(env);
        return false;
    }
    return true;
}

void MonitoringBoardProxy::release(JNIEnv* env) {
    if (_monitor_board_class != nullptr && env != nullptr) env->DeleteGlobalRef(_monitor_board_class);
    _monitor_board_class = nullptr;
    _board_constructor = nullptr;
    _board_constructor_based_on_file = nullptr;
    _process_is_gone = nullptr;
    _is_alive = nullptr;
}

void MonitoringBoardProxy::map(JNIEnv* env) {
    if (_shared_file.is_attached()) return;
    J2SE::StdTraceOutput trace;
    // Mapped read-only and shared, so that Java sees the VM's updates. Should the VM truncate
    // its board, touching the lost pages raises SIGBUS; the JVM turns a fault inside a
    // ByteBuffer access into an InternalError instead of dying. Native code never reads it.
    if (!_shared_file.attach(false, &trace)) return;
    jobject object = nullptr;
    if (_board_constructor_based_on_file != nullptr) {
        jstring name = env->NewStringUTF(_shared_file.get_file_name().c_str());
        if (name == nullptr) return;
        object = env->NewObject(_monitor_board_class, _board_constructor_based_on_file, name, pid());
        env->DeleteLocalRef(name);
    } else {
        char* start = static_cast<char*>(_shared_file.get_map_address()) + _shared_file.get_map_offset();
        jobject buffer = env->NewDirectByteBuffer(start, static_cast<jlong>(_shared_file.get_map_size()));
        if (buffer == nullptr) return;
        _exposed = true;
        _buffer_ref = env->NewWeakGlobalRef(buffer);
        if (_buffer_ref == nullptr && env->ExceptionCheck()) {
            env->DeleteLocalRef(buffer);
            return;  // OutOfMemoryError pending; the range will stay retired
        }
        object = env->NewObject(_monitor_board_class, _board_constructor, buffer, pid());
        env->DeleteLocalRef(buffer);
    }
    if (object == nullptr) return;  // the constructor's exception stays pending
    _jboard_obj = env->NewGlobalRef(object);
    env->DeleteLocalRef(object);
}

void MonitoringBoardProxy::unmap() {
    if (!_exposed) {
        _shared_file.detach();
        return;
    }
    // Zero pages take the file's place at once. The range itself is left to the collector, which
    // gives it back once the buffer is collected; without a weak reference, or without room in
    // the list, it stays for the life of the process.
    RetiredBoardRange range = {_shared_file.get_map_address(), _shared_file.get_map_size(), _buffer_ref};
    _shared_file.retire();
    if (range.address != nullptr && range.buffer != nullptr && _retired != nullptr) _retired->push_back(range);
    _exposed = false;
    _buffer_ref = nullptr;
}

MonitoringBoardProxy* MonitoringBoardCollector::find_proxy(J2SE::cvector<MonitoringBoardProxy>& boards, int pid) {
    for (int i = 0; i < boards.size(); i++) {
        if (boards[i].pid() == pid) return &boards[i];
    }
    return nullptr;
}

// Keeps the first Java exception of a refresh and clears it, so that the refresh can go on
// calling into Java; the kept one is thrown again at the end.
class PendingException {
public:
    explicit PendingException(JNIEnv* env) : _env(env), _first(nullptr) {}
    void collect() {
        if (!_env->ExceptionCheck()) return;
        jthrowable thrown = _env->ExceptionOccurred();
        _env->ExceptionClear();
        if (_first == nullptr) {
            _first = thrown;
        } else {
            _env->DeleteLocalRef(thrown);
        }
    }
    void rethrow() {
        if (_first != nullptr) {
            _env->Throw(_first);
            _env->DeleteLocalRef(_first);
            _first = nullptr;
        }
    }

private:
    JNIEnv* _env;
    jthrowable _first;
};

void MonitoringBoardCollector::release_unreachable_ranges(JNIEnv* env) {
    int i = 0;
    while (i < _retired.size()) {
        RetiredBoardRange range = _retired[i];
        // A cleared weak reference: the buffer, and every buffer derived from it (each keeps the
        // one it was made from reachable), has been collected, so no Java code can read the range.
        if (!env->IsSameObject(range.buffer, nullptr) || !J2SE::release_retired_range(range.address, range.size)) {
            i++;
            continue;
        }
        env->DeleteWeakGlobalRef(range.buffer);
        _retired[i] = _retired.back();
        _retired.pop_back();
    }
}

void MonitoringBoardCollector::refresh(JNIEnv* env) {
    PendingException pending(env);
    release_unreachable_ranges(env);
    J2SE::cvector<J2SE::SharedFile> files(8);
    J2SE::StdStaleSharedFileHandler handler;
    monitoring_board_file_cache = J2SE::SharedFile::get_shared_files(
        files, J2SE::get_monitor_board_format_string(), false, true, monitoring_board_file_cache, false, handler);

    for (int i = 0; i < _the_boards.size(); i++) _the_boards[i].set_mark(false);

    J2SE::cvector<MonitoringBoardProxy> fresh(files.size() > 0 ? files.size() : 1);
    for (int i = 0; i < files.size(); i++) {
        MonitoringBoardProxy candidate(std::move(files[i]), &_retired);
        MonitoringBoardProxy* known = find_proxy(_the_boards, candidate.pid());
        if (known != nullptr) {
            // A board is asked once per refresh whether it still wants its mapping; one that
            // says no is left out now and comes back next time as a new board.
            bool alive = known->board() != nullptr &&
                         env->CallBooleanMethod(known->board(), MonitoringBoardProxy::is_alive_method()) == JNI_TRUE;
            pending.collect();
            if (alive && !known->is_marked()) {
                candidate = std::move(*known);
                known->set_mark(true);
            }
        } else {
            candidate.map(env);
            pending.collect();
        }
        if (candidate.board() != nullptr) fresh.push_back(std::move(candidate));
    }

    for (int i = 0; i < _the_boards.size(); i++) {
        MonitoringBoardProxy& gone = _the_boards[i];
        if (gone.is_marked() || gone.board() == nullptr) continue;
        env->CallVoidMethod(gone.board(), MonitoringBoardProxy::process_is_gone_method());
        pending.collect();
        env->DeleteGlobalRef(gone.board());
        gone.forget_board();
    }
    _the_boards = std::move(fresh);  // the boards not taken over release their mappings
    pending.rethrow();
}

jobjectArray MonitoringBoardCollector::get_board_objects(JNIEnv* env) {
    refresh(env);
    if (env->ExceptionCheck()) return nullptr;
    jobjectArray array = env->NewObjectArray(_the_boards.size(), MonitoringBoardProxy::board_class(), nullptr);
    if (array == nullptr) return nullptr;
    for (int i = 0; i < _the_boards.size(); i++) env->SetObjectArrayElement(array, i, _the_boards[i].board());
    return array;
}

void MonitoringBoardCollector::release(JNIEnv* env) {
    for (int i = 0; i < _the_boards.size(); i++) {
        MonitoringBoardProxy& board = _the_boards[i];
        if (board.board() == nullptr) continue;
        if (env != nullptr) {
            env->CallVoidMethod(board.board(), MonitoringBoardProxy::process_is_gone_method());
            env->ExceptionClear();
            env->DeleteGlobalRef(board.board());
        }
        board.forget_board();
    }
    _the_boards.clear();
}

// Created at library load; released only at library unload, never by exit handlers, since JVM
// threads may still read a board's ByteBuffer while the process exits.
static MonitoringBoardCollector* the_collector = nullptr;

MonitoringBoardCollector* MonitoringBoardCollector::the_impl() {
    if (the_collector == nullptr) {
        void* memory = wrap_malloc(
            alloc_site("(libnoxjvm_inspector.so) src/natives/monitoringBoardCollector.cpp:the_impl"),
            sizeof(MonitoringBoardCollector));
        if (memory != nullptr) the_collector = new (memory) MonitoringBoardCollector(50);
    }
    return the_collector;
}

void MonitoringBoardCollector::destroy_the_impl(JNIEnv* env) {
    if (the_collector == nullptr) return;
    if (MonitoringBoardProxy::is_initialised()) the_collector->release(env);
    // The retired ranges stay as they are (a JVM thread may still read one); only their weak
    // references go.
    J2SE::cvector<RetiredBoardRange>& retired = the_collector->_retired;
    for (int i = 0; i < retired.size() && env != nullptr; i++) env->DeleteWeakGlobalRef(retired[i].buffer);
    the_collector->~MonitoringBoardCollector();
    wrap_free(alloc_site("(libnoxjvm_inspector.so) src/natives/monitoringBoardCollector.cpp:destroy_the_impl"),
              the_collector);
    the_collector = nullptr;
    MonitoringBoardProxy::release(env);
}

static MonitoringBoardCollector* collector_at_load = MonitoringBoardCollector::the_impl();
