// expect: undefined symbol: _prctl
extern "C" int prctl(int option, ...);

int nameThread(const char* name)
{
    return prctl(15, name);
}
