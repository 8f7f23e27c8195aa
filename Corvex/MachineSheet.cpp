#include "Corvex/MachineSheet.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "CorvexKit/SSHTarget.h"

namespace corvex {

MachineSheet::MachineSheet(Mode mode, const std::string& label, const std::string& target, QWidget* parent)
    : QDialog(parent) {
    setObjectName("machineSheet");
    setWindowTitle(mode == Mode::add ? "Add Machine" : "Edit Machine");
    setWindowModality(Qt::WindowModal);
    auto* layout = new QVBoxLayout(this);
    auto* intro = new QLabel(mode == Mode::add
                                 ? "Corvex reaches the machine with ssh and installs corvexd there on first contact."
                                 : "Changing the target reconnects the machine.",
                             this);
    intro->setWordWrap(true);
    layout->addWidget(intro);
    auto* form = new QFormLayout;
    label_ = new QLineEdit(QString::fromStdString(label), this);
    label_->setObjectName("machineLabel");
    label_->setPlaceholderText("Build server");
    target_ = new QLineEdit(QString::fromStdString(target), this);
    target_->setObjectName("machineTarget");
    target_->setPlaceholderText("you@host");
    form->addRow("Name", label_);
    form->addRow("SSH target", target_);
    layout->addLayout(form);
    problem_ = new QLabel(this);
    problem_->setObjectName("machineProblem");
    problem_->setWordWrap(true);
    QPalette warning = problem_->palette();
    warning.setColor(QPalette::WindowText, QColor(0xc0, 0x39, 0x2b));
    problem_->setPalette(warning);
    layout->addWidget(problem_);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    buttons_->button(QDialogButtonBox::Ok)->setText(mode == Mode::add ? "Add" : "Save");
    layout->addWidget(buttons_);

    connect(target_, &QLineEdit::textChanged, this, [this] { check(); });
    connect(buttons_, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(buttons_, &QDialogButtonBox::accepted, this, [this] {
        std::string target = target_->text().toStdString();
        if (!problemText(target).empty()) return;
        std::string name = label_->text().trimmed().toStdString();
        if (name.empty()) name = target;
        if (onAccept) onAccept(name, target);
        accept();
    });
    check();
}

QPushButton* MachineSheet::acceptButton() const {
    return buttons_->button(QDialogButtonBox::Ok);
}

std::string MachineSheet::problemText(const std::string& target) {
    auto problem = SSHTarget::problem(target);
    if (!problem) return {};
    if (target.empty()) return *problem;
    return "Can't use \"" + target + "\"\n" + *problem;
}

void MachineSheet::check() {
    std::string problem = problemText(target_->text().toStdString());
    // An empty field isn't an error yet: the Add button waits, without a red line.
    problem_->setText(target_->text().isEmpty() ? QString() : QString::fromStdString(problem));
    acceptButton()->setEnabled(problem.empty());
}

} // namespace corvex
