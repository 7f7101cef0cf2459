#include "companions/ctl/RunCtl.h"

int main(int argc, char** argv) {
    return kelto::halvek::ctl::RunCtl(argc, argv);
}
