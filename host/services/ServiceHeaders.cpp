// The library beside which these services are loaded must have been built with the same service
// headers. An address in data is looked up when the process starts, whatever it calls.
extern "C" const char ANALYTICS_SERVICE_HEADERS;
__attribute__((used)) static const char* const serviceHeaders = &ANALYTICS_SERVICE_HEADERS;
