#pragma once

#include <QDialog>
#include <functional>
#include <string>

class QDialogButtonBox;
class QLabel;
class QLineEdit;

namespace corvex {

// The sheet that adds or edits a machine: a name and an ssh target, the target checked as
// it is typed so that one that can't work is never stored.
class MachineSheet final : public QDialog {
    Q_OBJECT
public:
    enum class Mode { add, edit };

    MachineSheet(Mode mode, const std::string& label, const std::string& target, QWidget* parent);

    QLineEdit* labelField() const { return label_; }
    QLineEdit* targetField() const { return target_; }
    QLabel* problemLabel() const { return problem_; }
    QPushButton* acceptButton() const;

    // What the problem line says for a target: nothing when it can be used.
    static std::string problemText(const std::string& target);

    std::function<void(const std::string& label, const std::string& target)> onAccept;

private:
    void check();

    QLineEdit* label_ = nullptr;
    QLineEdit* target_ = nullptr;
    QLabel* problem_ = nullptr;
    QDialogButtonBox* buttons_ = nullptr;
};

} // namespace corvex
