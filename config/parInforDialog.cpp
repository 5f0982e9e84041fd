#include "parInforDialog.h"
#include "ui_parInforDialog.h"

parInforDialog::parInforDialog(const QString &addressType, parInforRow *row, QWidget *parent)
    : QDialog(parent), ui(new Ui::parInforDialog), row(row)
{
    ui->setupUi(this);
    ui->comboBox->setCurrentIndex(ui->comboBox->findText(addressType));
    ui->lineEdit_address->setText(row->addressNumber);
    ui->lineEdit_name->setText(row->name);
    ui->lineEdit_value->setText(row->value);
    ui->lineEdit_type->setText(row->type);
    ui->lineEdit_access->setText(row->access);
}

parInforDialog::~parInforDialog()
{
    delete ui;
}

void parInforDialog::on_OK_clicked()
{
    row->addressType = ui->comboBox->currentText();
    row->addressNumber = ui->lineEdit_address->text();
    row->name = ui->lineEdit_name->text();
    row->value = ui->lineEdit_value->text();
    row->type = ui->lineEdit_type->text();
    row->access = ui->lineEdit_access->text();
    close();
}

void parInforDialog::on_Cancle_clicked()
{
    close();
}
