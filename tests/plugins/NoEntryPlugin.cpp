// A plug-in that forgot its entry point.
extern "C" int NotTheEntryPoint()
{
    return 0;
}
