// Objective-C++ functions name the personality routine of the GNU Objective-C runtime, which knows no C++ catch
// clause: an exception that meets one would end the process. The tables are the same ones, so this definition, which
// is found before the runtime's, passes every call on to the C++ routine. @try and @catch do not work with it;
// nothing here or in the adapter has them.
#include <unwind.h>

extern "C" {

_Unwind_Reason_Code __gxx_personality_v0(
    int version, _Unwind_Action actions, _Unwind_Exception_Class kind, _Unwind_Exception*, _Unwind_Context*);

_Unwind_Reason_Code __gnu_objc_personality_v0(int version, _Unwind_Action actions, _Unwind_Exception_Class kind,
    _Unwind_Exception* exception, _Unwind_Context* context)
{
    return __gxx_personality_v0(version, actions, kind, exception, context);
}
}
