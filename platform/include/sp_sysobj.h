/*
 * Component database interface (sp::sysobj): component tree, property
 * records and cross-process write locks. Owned by the database library.
 */
#ifndef ZNPDK_PLATFORM_SP_SYSOBJ_H
#define ZNPDK_PLATFORM_SP_SYSOBJ_H

#include <string>
#include <vector>

/* The database's own base values; machine types and keys extend them. */
enum COMPONENT_TYPE {
    COMPO_NULL = 0,
    COMPO_EXCLUSIVE = 1,
    COMPO_EXTENSION = 256,
};

enum PROPERTY_KEY {
    PROP_UNKNOWN = 0,
    PROP_EXTENSION = 256,
};

namespace sp {
namespace sysobj {

class Component {
  public:
    /* The root "/SYSTEM#0". */
    static Component* getRoot();

    /* The component of that type and number at any depth below this one. */
    Component* getComponent(int type, int no);
    /* Appends every component of that type below this one. */
    void getComponent(int type, std::vector<Component*>& list);
    /* Appends the direct children of this component. */
    void getComponent(std::vector<Component*>& list, bool recursive);
    /* Appends every parent of this component that has the given type. */
    void getParents(int type, std::vector<Component*>& list);
    Component* getParent();

    int getType();
    int getNo();
    int getComponentId();

    int getProperty(int key, void* buffer, unsigned int length);
    int setProperty(int key, const void* buffer, unsigned int length);

    void writeLock();
    void writeUnlock();

    /* Scoped write lock; a null component is neither locked nor unlocked. */
    class WriteLock {
      public:
        explicit WriteLock(Component* compo) : compo_(compo)
        {
            if (compo_ != nullptr) {
                compo_->writeLock();
            }
        }
        ~WriteLock()
        {
            if (compo_ != nullptr) {
                compo_->writeUnlock();
            }
        }
        WriteLock(const WriteLock&) = delete;
        WriteLock& operator=(const WriteLock&) = delete;

      private:
        Component* compo_;
    };

    /* Handles are created and owned by the database. */
    explicit Component(int oid) : oid_(oid) {}

  private:
    int oid_;
};

class TreePath {
  public:
    explicit TreePath(const std::string path);
    ~TreePath();
    /* The component named by the full path, or null. */
    Component* getComponent();

  private:
    Component* compo_;
};

} // namespace sysobj
} // namespace sp

#endif
