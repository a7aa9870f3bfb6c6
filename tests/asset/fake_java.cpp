// Stands in for a Tomcat JVM: started with argv[0] "java" and Tomcat's
// arguments, it only waits for a signal, so that /proc shows a Tomcat
// command line without a JVM on the test machine.
#include <unistd.h>

int main()
{
    for (;;) {
        pause();
    }
}
