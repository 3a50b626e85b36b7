#pragma once

// The program's own classes, which have names that libanalytics_forwarding.a and what it uses have
// as well. Their objects differ in size from the library's. Gives 500, the sum of what they hold.
int useOwnClasses();
