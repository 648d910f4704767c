#include "shader_describe.h"

#include "shader_loader.h"

#include <algorithm>
#include <dirent.h>
#include <sstream>

namespace druxhost {

namespace {

std::string typeText(const mirt::ParamSlot &p)
{
    std::string t = mirt::param_type_name(p.type);
    if (p.array_max > 0)
        t += "[" + std::to_string(p.array_max) + "]";
    return t;
}

void describeOne(std::ostringstream &o, mirt::ShaderLibraries &libs, const std::string &name)
{
    const mirt::LoadedShader *s = nullptr;
    try {
        s = &libs.shader(name);
    } catch (const mirt::LoadError &e) {
        o << "shader " << name << ": cannot be used: " << e.what() << "\n";
        return;
    }
    o << "shader " << name << "  version " << s->decl->version << "  returns "
      << mirt::param_type_name(s->decl->result_type);
    if (s->decl->param_count == miPARAMS_BUILT_BY_HOST) {
        o << "  parameters built by the host\n";
        return;
    }
    o << "  " << s->params.size() << " parameter" << (s->params.size() == 1 ? "" : "s") << ", " << s->block_size
      << " bytes, layout " << (s->checked ? "checked against its struct" : "unchecked (positional table)") << "\n";
    for (const mirt::ParamSlot &p : s->params) {
        std::string line = "  " + p.name;
        line.resize(std::max<size_t>(line.size() + 1, 22), ' ');
        line += typeText(p);
        line.resize(std::max<size_t>(line.size() + 1, 40), ' ');
        line += p.default_value ? std::string("default ") + p.default_value : std::string("default zeros");
        o << line << "\n";
    }
}

std::vector<std::string> librariesIn(const std::string &folder)
{
    std::vector<std::string> out;
    if (DIR *d = ::opendir(folder.c_str())) {
        while (const dirent *e = ::readdir(d)) {
            const std::string n = e->d_name;
            if (n.size() > 6 && n.compare(0, 3, "lib") == 0 && n.compare(n.size() - 3, 3, ".so") == 0)
                out.push_back(n);
        }
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace

std::string describeShaders(const std::string &what, const std::vector<std::string> &folders)
{
    mirt::ShaderLibraries libs;
    std::ostringstream o;
    const bool library = what.find('/') != std::string::npos ||
                         (what.size() > 3 && what.compare(what.size() - 3, 3, ".so") == 0);
    if (library) {
        const std::string path = libs.link(what, folders);
        o << "library " << path << "\n";
        for (const std::string &name : libs.declared_shaders(path))
            describeOne(o, libs, name);
        return o.str();
    }
    std::vector<std::string> known, searched;
    for (const std::string &folder : folders) {
        if (folder.empty() || std::find(searched.begin(), searched.end(), folder) != searched.end())
            continue;
        searched.push_back(folder);
        for (const std::string &file : librariesIn(folder)) {
            std::string path;
            try {
                path = libs.link(folder + "/" + file, {});
            } catch (const mirt::LoadError &) {
                continue; /* not a shader library */
            }
            const std::vector<std::string> names = libs.declared_shaders(path);
            if (std::find(names.begin(), names.end(), what) != names.end()) {
                o << "library " << path << "\n";
                describeOne(o, libs, what);
                return o.str();
            }
            known.insert(known.end(), names.begin(), names.end());
        }
    }
    std::string where;
    for (const std::string &f : searched)
        where += (where.empty() ? "" : ", ") + f;
    throw mirt::LoadError("no shader library on the shader path declares shader \"" + what + "\" (searched: " +
                          (where.empty() ? std::string("no folders") : where) + ")" +
                          mirt::did_you_mean(what, known) +
                          "; add the library's folder with --shader-path or DRUX_SHADER_PATH, or name the library");
}

} // namespace druxhost
