#include <iostream>
#include <zel/zel.h>

int main() {
    using zel::float3;
    auto const ball = Quern::makePtr<zel::ScalarFieldSphere>(float3{0, 0, 0}, 1.0F);
    auto const wall = Quern::makePtr<zel::ScalarFieldPlane>(float3{0.5F, 0, 0}, float3{1, 0, 0});
    auto const cut = Quern::makePtr<zel::ScalarFieldMax>(ball, wall);
    auto const values = cut->eval(Quern::Array<float3>{{0, 0, 0}, {1, 0, 0}, {0, 2, 0}});
    for (float const value : *values) std::cout << value << '\n';  // -0.5 0.5 1
    if (std::cout.flush()) return 0;
    std::cerr << "hello: standard output: cannot be written\n";
    return 2;
}
