// Load and unload of the shared object by a JVM. The per-process state itself (own pid, the
// pid-to-file-name cache, the shared-file mapping cache) is set up by static initialisers when
// the library is loaded; JNI_OnUnload releases what a later load would create again.
#include "controlAreaFile.h"

#include <jni.h>

extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM*, void*) {
    J2SE::ControlAreaFileNames::create();
    return JNI_VERSION_1_8;
}

extern "C" JNIEXPORT void JNICALL JNI_OnUnload(JavaVM*, void*) {
    J2SE::ControlAreaFileNames::release();
}
