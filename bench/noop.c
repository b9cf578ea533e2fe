/* Stands in for dpkg when only the tool's own work is to be measured. */
int main(void)
{
    return 0;
}
