#include "app/RunDaemon.h"

int main(int argc, char** argv) {
    return kelto::halvek::RunDaemon(argc, argv);
}
