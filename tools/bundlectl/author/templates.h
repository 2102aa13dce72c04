#ifndef BUNDLECTL_AUTHOR_TEMPLATES_H
#define BUNDLECTL_AUTHOR_TEMPLATES_H

namespace NewBundle {

/// A template for a file of a new project: templates/NAME.in.
struct Template {
    const char* name;
    const char* text; ///< with words like @NAME@ in it
};

/// The last one has no name.
extern const Template TEMPLATES[];

} // namespace NewBundle

#endif
